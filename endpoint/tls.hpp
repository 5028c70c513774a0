// TLS over another stream. Here alone the library that does it is known.
#pragma once

#include "endpoint/endpoint.hpp"

#include <memory>
#include <string>

struct ssl_ctx_st;

namespace endpoint
{

// Who we are and whom we trust, read from the files once. Throws Mistake; see serversOf.
class Credentials
{
public:
    explicit Credentials(const Access& access);

    const Access& access() const { return m_access; }
    ssl_ctx_st* context() const { return m_context.get(); }

private:
    const Access m_access;
    std::shared_ptr<ssl_ctx_st> m_context;
};

// The peer's certificate must be valid, of one of the CAs, and for the endpoint's host, before anything is sent to it.
std::unique_ptr<ovsdb::Stream> secure(std::unique_ptr<ovsdb::Stream> inner, const Endpoint& endpoint,
                                      std::shared_ptr<const Credentials> credentials);

} // namespace endpoint
