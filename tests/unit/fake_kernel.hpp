// The kernel's side of nf_tables, as much of it as the bridge's filter table needs: keeps chains and rules, takes
// batches as a whole or not at all, and fails as a test says. It is an old one, which knows no maps.
#pragma once

#include "nftables/socket.hpp"

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

class FakeKernel
{
public:
    // What goes wrong with one message of the next batches (or with all of them: none named).
    struct Fault {
        enum class Kind {
            Error,      // the message is answered with `error`
            BatchError, // the whole batch is
            SendError,  // sending fails
            NoAnswer,   // taken, and never answered
            Overrun,    // taken, and the answer is lost
            Cut,        // taken, and the answer is cut off
            Lie,        // taken, and answered with nonsense
            Omission,   // of the answer, all but its end is left out
        };
        Kind kind = Kind::Error;
        int error = 0;
        std::optional<std::size_t> message; // 0: the one that makes the table when it is missing
        unsigned times = 1;
        bool reading = false; // of requests to read: `message` of them are answered first
    };

    nftables::SocketOpener opener();

    void fail(const Fault& fault) { m_fault = fault; }

    // Somebody else changes some other table.
    void bumpGeneration() { ++m_generation; }
    // Before each batch, as often as told.
    void interfere(unsigned times) { m_interferences = times; }

    // "CHAIN POLICY" and its rules, "-j DROP" each; empty before there is a table.
    std::map<std::string, std::vector<std::string>> tables() const;

    std::uint32_t generation() const { return m_generation; }
    unsigned batches() const { return m_batches; } // taken or not
    std::size_t lastMessages() const { return m_lastMessages; }

    // As others do.
    void removeChain(const std::string& chain);
    void flush(const std::string& chain);

private:
    friend class FakeSocket;

    struct Rule {
        std::uint64_t handle;
        std::vector<std::uint8_t> expressions; // whole attributes
        std::vector<std::uint8_t> userData;
    };
    struct Chain {
        bool builtIn = false;
        std::uint32_t hook = 0;
        std::uint32_t policy = 1;
        std::vector<Rule> rules;
    };
    struct State {
        std::uint64_t table = 0;
        std::vector<std::pair<std::string, Chain>> chains;
        Chain* find(const std::string& chain);
    };

    int take(nftables::Bytes datagram);
    void batch(nftables::Bytes datagram);
    int apply(const void* message, State& state, std::vector<std::uint8_t>& echo);
    void dump(const void* request);
    void spoil(const void* request);
    void spoilReplies();
    void reply(std::vector<std::uint8_t> message) { m_replies.push_back(std::move(message)); }
    void acknowledge(std::uint32_t sequence, int error);

    State m_state;
    std::uint32_t m_generation = 1;
    std::uint64_t m_lastHandle = 0;
    std::uint64_t m_lastTable = 0;
    unsigned m_interferences = 0;
    unsigned m_batches = 0;
    std::size_t m_lastMessages = 0;
    std::optional<Fault> m_fault;
    std::deque<std::vector<std::uint8_t>> m_replies;
    int m_receiveError = 0;
};
