#include "endpoint/tls.hpp"

#include "ovsdb/error.hpp"
#include "text/one_line.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <system_error>
#include <utility>

namespace endpoint
{

namespace
{

using ovsdb::ConnectionError;
using ovsdb::ForeignServerError;

constexpr std::size_t recordSize = 16 * 1024;

struct Free {
    void operator()(SSL* value) const { SSL_free(value); }
    void operator()(X509* value) const { X509_free(value); }
    void operator()(BIO* value) const { BIO_free(value); }
    void operator()(GENERAL_NAMES* value) const { GENERAL_NAMES_free(value); }
};

// What the library said: what the system said first, else the last.
std::string lastReason()
{
    unsigned long error = ERR_peek_error();
    if (!ERR_SYSTEM_ERROR(error))
        error = ERR_peek_last_error();
    ERR_clear_error();
    if (ERR_SYSTEM_ERROR(error))
        return std::generic_category().message(ERR_GET_REASON(error));
    const char* text = ERR_reason_error_string(error);
    return text != nullptr ? text : "unknown error";
}

std::string textOf(BIO* bio)
{
    char* data = nullptr;
    const long size = BIO_get_mem_data(bio, &data);
    return text::oneLine(std::string_view(data, static_cast<std::size_t>(std::max(size, 0L))));
}

std::string timeOf(const ASN1_TIME* time)
{
    const std::unique_ptr<BIO, Free> bio(BIO_new(BIO_s_mem()));
    ASN1_TIME_print(bio.get(), time);
    return textOf(bio.get());
}

std::string subjectOf(const X509* certificate)
{
    const std::unique_ptr<BIO, Free> bio(BIO_new(BIO_s_mem()));
    X509_NAME_print_ex(bio.get(), X509_get_subject_name(certificate), 0, XN_FLAG_RFC2253);
    return textOf(bio.get());
}

// "DNS:centre.example, IP Address:192.0.2.1", as the certificate has them.
std::string hostsOf(const X509* certificate)
{
    const std::unique_ptr<GENERAL_NAMES, Free> names(
        static_cast<GENERAL_NAMES*>(X509_get_ext_d2i(certificate, NID_subject_alt_name, nullptr, nullptr)));
    std::string text;
    for (int i = 0; names && i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const std::unique_ptr<BIO, Free> bio(BIO_new(BIO_s_mem()));
        GENERAL_NAME_print(bio.get(), sk_GENERAL_NAME_value(names.get(), i));
        text += (text.empty() ? "" : ", ") + textOf(bio.get());
    }
    return text.empty() ? "none" : text;
}

std::string place(const char* setting, const std::string& value)
{
    return std::string(setting) + ' ' + text::inQuotes(value) + ": ";
}

void checkKeyIsPrivate(const std::string& path)
{
    struct stat status {
    };
    if (stat(path.c_str(), &status) != 0)
        throw Mistake(place("--private-key", path) + std::generic_category().message(errno));
    if ((status.st_mode & (S_IROTH | S_IWOTH)) != 0)
        throw Mistake(place("--private-key", path) +
                      "everybody on this machine may use it, expected a file for its owner and group only");
}

void loadOwnCertificate(SSL_CTX* context, const Access& access)
{
    if (access.privateKey.empty() != access.certificate.empty())
        throw Mistake(access.privateKey.empty() ? "--private-key is missing: expected the key of --certificate"
                                                : "--certificate is missing: expected that of --private-key");
    if (access.certificate.empty())
        return;
    if (SSL_CTX_use_certificate_chain_file(context, access.certificate.c_str()) != 1)
        throw Mistake(place("--certificate", access.certificate) + lastReason() +
                      ", expected a certificate in PEM form");
    const X509* certificate = SSL_CTX_get0_certificate(context);
    if (X509_cmp_current_time(X509_get0_notAfter(certificate)) < 0)
        throw Mistake(place("--certificate", access.certificate) + "expired on " +
                      timeOf(X509_get0_notAfter(certificate)) + ", expected one that is valid");
    checkKeyIsPrivate(access.privateKey);
    SSL_CTX_set_default_passwd_cb(context, [](char*, int, int, void*) { return 0; });
    if (SSL_CTX_use_PrivateKey_file(context, access.privateKey.c_str(), SSL_FILETYPE_PEM) == 1)
        return;
    const bool doesNotFit = ERR_GET_REASON(ERR_peek_last_error()) == X509_R_KEY_VALUES_MISMATCH ||
                            ERR_GET_REASON(ERR_peek_last_error()) == X509_R_KEY_TYPE_MISMATCH;
    const std::string why = lastReason();
    throw Mistake(place("--private-key", access.privateKey) +
                  (doesNotFit ? "does not fit, expected the key of " + access.certificate
                              : why + ", expected a private key in PEM form, without a passphrase"));
}

} // namespace

Credentials::Credentials(const Access& access)
    : m_access(access), m_context(SSL_CTX_new(TLS_client_method()), SSL_CTX_free)
{
    SSL_CTX* context = m_context.get();
    if (context == nullptr)
        throw Mistake("TLS cannot be used here: " + lastReason());
    SSL_CTX_set_min_proto_version(context, TLS1_2_VERSION);
    SSL_CTX_set_mode(context, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_CTX_set_verify(context, SSL_VERIFY_PEER, nullptr);
    if (access.caCertificate.empty())
        throw Mistake(
            "--ca-cert is missing: expected the certificate of the CA of the server, which is always checked");
    if (SSL_CTX_load_verify_file(context, access.caCertificate.c_str()) != 1)
        throw Mistake(place("--ca-cert", access.caCertificate) + lastReason() + ", expected certificates in PEM form");
    loadOwnCertificate(context, access);
}

namespace
{

class TlsStream final : public ovsdb::Stream
{
public:
    TlsStream(std::unique_ptr<ovsdb::Stream> inner, const Endpoint& endpoint,
              std::shared_ptr<const Credentials> credentials)
        : m_inner(std::move(inner)),
          m_endpoint(endpoint),
          m_credentials(std::move(credentials)),
          m_ssl(SSL_new(m_credentials->context()))
    {
        m_fromPeer = BIO_new(BIO_s_mem());
        m_toPeer = BIO_new(BIO_s_mem());
        SSL_set_bio(m_ssl.get(), m_fromPeer, m_toPeer); // its own now
        SSL_set_connect_state(m_ssl.get());
        SSL_set_app_data(m_ssl.get(), this);
        SSL_set_verify(m_ssl.get(), SSL_VERIFY_PEER, keepRefused);
        expectHost();
    }

    pollfd interest(bool wantsWrite) const override
    {
        const bool output = BIO_ctrl_pending(m_toPeer) > 0 || (wantsWrite && SSL_is_init_finished(m_ssl.get()) == 1);
        return m_inner->interest(output || !m_begun);
    }

    std::string_view read() override
    {
        goOn();
        ERR_clear_error();
        const int count = SSL_read(m_ssl.get(), m_buffer.data(), static_cast<int>(m_buffer.size()));
        if (count > 0)
            return {m_buffer.data(), static_cast<std::size_t>(count)};
        check(count);
        return {};
    }

    bool hasMore() const override { return SSL_pending(m_ssl.get()) > 0 || BIO_ctrl_pending(m_fromPeer) > 0; }

    std::size_t write(std::string_view bytes) override
    {
        goOn();
        if (SSL_is_init_finished(m_ssl.get()) != 1 || BIO_ctrl_pending(m_toPeer) > recordSize)
            return 0;
        ERR_clear_error();
        const int count = SSL_write(m_ssl.get(), bytes.data(), static_cast<int>(std::min(bytes.size(), recordSize)));
        if (count <= 0) {
            check(count);
            return 0;
        }
        flush();
        return static_cast<std::size_t>(count);
    }

private:
    // Only for the message: the verdict stays as it is.
    static int keepRefused(int verdict, X509_STORE_CTX* store)
    {
        const auto* ssl =
            static_cast<const SSL*>(X509_STORE_CTX_get_ex_data(store, SSL_get_ex_data_X509_STORE_CTX_idx()));
        X509* certificate = X509_STORE_CTX_get0_cert(store);
        if (verdict != 1 && certificate != nullptr && X509_up_ref(certificate) == 1)
            static_cast<TlsStream*>(SSL_get_app_data(ssl))->m_refused.reset(certificate);
        return verdict;
    }

    void expectHost()
    {
        std::string host = m_endpoint.host;
        host = host.substr(0, host.find('%'));
        X509_VERIFY_PARAM* expected = SSL_get0_param(m_ssl.get());
        X509_VERIFY_PARAM_set_hostflags(expected,
                                        X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS | X509_CHECK_FLAG_NEVER_CHECK_SUBJECT);
        std::array<unsigned char, sizeof(in6_addr)> bytes{};
        const bool isAddress =
            inet_pton(AF_INET, host.c_str(), bytes.data()) == 1 || inet_pton(AF_INET6, host.c_str(), bytes.data()) == 1;
        const bool set = isAddress ? X509_VERIFY_PARAM_set1_ip_asc(expected, host.c_str()) == 1
                                   : X509_VERIFY_PARAM_set1_host(expected, host.c_str(), host.size()) == 1 &&
                                         SSL_set_tlsext_host_name(m_ssl.get(), host.c_str()) == 1;
        if (!set) // or any host would do
            throw ForeignServerError(toText(m_endpoint) + " refused: no certificate can be for such a host");
    }

    // Takes what the peer has sent, and agrees with it if that has not been done.
    void goOn()
    {
        std::string_view bytes;
        try {
            bytes = m_inner->read();
        } catch (const ForeignServerError&) {
            throw;
        } catch (const ConnectionError& error) {
            if (m_begun && SSL_is_init_finished(m_ssl.get()) != 1)
                throw ConnectionError(std::string(error.what()) + " while TLS was begun with it");
            throw;
        }
        if (!bytes.empty())
            BIO_write(m_fromPeer, bytes.data(), static_cast<int>(bytes.size()));
        if (SSL_is_init_finished(m_ssl.get()) != 1) {
            ERR_clear_error();
            const int done = SSL_do_handshake(m_ssl.get());
            if (done <= 0)
                check(done);
        }
        flush();
    }

    void flush()
    {
        while (BIO_ctrl_pending(m_toPeer) > 0) {
            char* data = nullptr;
            const long size = BIO_get_mem_data(m_toPeer, &data);
            std::size_t count = 0;
            try {
                count = m_inner->write({data, static_cast<std::size_t>(size)});
            } catch (const ConnectionError&) {
                hearWhy();
                throw;
            }
            if (count == 0)
                return;
            m_begun = true;
            std::array<char, recordSize> taken;
            for (std::size_t left = count; left > 0;)
                left -= static_cast<std::size_t>(
                    BIO_read(m_toPeer, taken.data(), static_cast<int>(std::min(left, taken.size()))));
        }
    }

    // The peer does not listen any more: throws the reason that it gave, if it gave one.
    void hearWhy()
    {
        if (std::exchange(m_closed, true))
            return;
        try {
            const std::string_view bytes = m_inner->read();
            BIO_write(m_fromPeer, bytes.data(), static_cast<int>(bytes.size()));
        } catch (const ConnectionError&) {
            // What has come before may say it.
        }
        ERR_clear_error();
        if (const int count = SSL_read(m_ssl.get(), m_buffer.data(), static_cast<int>(m_buffer.size())); count <= 0)
            check(count);
    }

    // Throws unless the library only wants more bytes.
    void check(int result)
    {
        const int error = SSL_get_error(m_ssl.get(), result);
        if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE)
            return;
        try {
            flush(); // the peer is told why
        } catch (const ConnectionError&) {
            // It does not listen any more.
        }
        if (error == SSL_ERROR_ZERO_RETURN)
            throw ConnectionError("connection closed by " + toText(m_endpoint));
        const int reason = ERR_GET_REASON(ERR_peek_error());
        if (const long verified = SSL_get_verify_result(m_ssl.get()); verified != X509_V_OK)
            refusePeer(verified);
        if (reason >= SSL_AD_REASON_OFFSET)
            tellAlert(reason);
        if (SSL_is_init_finished(m_ssl.get()) != 1)
            throw ConnectionError(toText(m_endpoint) + " does not speak TLS 1.2 or later: " + lastReason());
        throw ConnectionError("connection to " + toText(m_endpoint) + " lost: " + lastReason());
    }

    [[noreturn]] void refusePeer(long verified)
    {
        ERR_clear_error();
        const X509* peer = m_refused.get();
        const std::string who = toText(m_endpoint) + " refused: its certificate";
        if (peer == nullptr)
            throw ForeignServerError(who + ": " + X509_verify_cert_error_string(verified));
        const std::string whose = who + " (" + subjectOf(peer) + ") ";
        if (verified == X509_V_ERR_CERT_HAS_EXPIRED)
            throw ForeignServerError(whose + "or its CA's has expired, its own is valid until " +
                                     timeOf(X509_get0_notAfter(peer)));
        if (verified == X509_V_ERR_CERT_NOT_YET_VALID)
            throw ForeignServerError(whose + "or its CA's is not valid yet, its own is from " +
                                     timeOf(X509_get0_notBefore(peer)));
        if (verified == X509_V_ERR_HOSTNAME_MISMATCH || verified == X509_V_ERR_IP_ADDRESS_MISMATCH)
            throw ForeignServerError(whose + "is for " + hostsOf(peer) + ", expected " +
                                     text::inQuotes(m_endpoint.host));
        throw ForeignServerError(whose + "is not of the CA in " + m_credentials->access().caCertificate + ": " +
                                 X509_verify_cert_error_string(verified));
    }

    [[noreturn]] void tellAlert(int reason)
    {
        ERR_clear_error();
        const char* text = SSL_alert_desc_string_long(reason - SSL_AD_REASON_OFFSET);
        const std::string& own = m_credentials->access().certificate;
        throw ForeignServerError(toText(m_endpoint) + " does not accept " +
                                 (own.empty() ? "a client without a certificate (" + std::string(text) +
                                                    "), expected --certificate and --private-key"
                                              : "the certificate in " + own + ": " + text));
    }

    const std::unique_ptr<ovsdb::Stream> m_inner;
    const Endpoint m_endpoint;
    const std::shared_ptr<const Credentials> m_credentials;
    const std::unique_ptr<SSL, Free> m_ssl;
    BIO* m_fromPeer = nullptr;
    BIO* m_toPeer = nullptr;
    std::unique_ptr<X509, Free> m_refused;
    bool m_closed = false;
    bool m_begun = false; // something of ours is on its way
    std::array<char, recordSize> m_buffer;
};

} // namespace

std::unique_ptr<ovsdb::Stream> secure(std::unique_ptr<ovsdb::Stream> inner, const Endpoint& endpoint,
                                      std::shared_ptr<const Credentials> credentials)
{
    return std::make_unique<TlsStream>(std::move(inner), endpoint, std::move(credentials));
}

} // namespace endpoint
