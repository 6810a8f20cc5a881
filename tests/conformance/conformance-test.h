// SPDX-License-Identifier: MIT
// The fixture of the conformance tests: a channel in the stub world, and the comparison of what it
// does with what stands in recordings/.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/conformance/stub-world.h"

// A channel whose handlers are written down, or are the default ones.
class StubChannel : public TevrolDbusRemote {
public:
    enum class Handlers { Recorded, Default };

    StubChannel(const std::string& name, Handlers handlers)
        : TevrolDbusRemote(name), m_handlers(handlers) {}
    ~StubChannel() override;
    // Make the members readable, and show when the storage is freed.
    // Not inlined: g++ would take the two for a mismatched pair.
    __attribute__((noinline)) static void* operator new(std::size_t size);
    __attribute__((noinline)) static void operator delete(void* storage);

    std::vector<char> HandleMessage(std::vector<char>& data) override;
    void HandleNotification(std::vector<char>& data) override;
    void HandleConnectionReady(bool state, const std::string& partner) override;

private:
    const Handlers m_handlers;
};

// The life of one channel in one stub world.
struct ChannelLife {
    using Handlers = StubChannel::Handlers;
    using NameOwnerChanged = void (*)(GDBusConnection*, const gchar*, const gchar*, const gchar*,
                                      const gchar*, GVariant*, gpointer);

    ~ChannelLife();

    // Constructs the channel "demo".
    void Construct(Handlers handlers = Handlers::Recorded);
    // Lets `stage` hear of one change of owner of its name, as the bus reports it.
    void Hear(NameOwnerChanged stage, const std::string& old_owner,
              const std::string& new_owner = "");
    // The same with any body, connection and object.
    static void Deliver(NameOwnerChanged stage, GVariant* body, GDBusConnection* connection,
                        gpointer user_data);
    // A name leaves the bus.
    void Lose(const std::string& name);
    // A request and a signal of the partner ":1.5", on the channel's path.
    void Receive(GVariant* body);
    void ReceiveSignal(GVariant* body, const char* member = "SendSignal");
    // A fresh channel that the partner ":1.5" has bound; ready, or waiting for its ACK.
    void ConstructBound();
    void ConstructReady(Handlers handlers = Handlers::Recorded);

    // From here on what happens is written down; until Stop().
    void Record();
    void Stop();

    StubWorld world;
    std::unique_ptr<StubChannel> channel;
};

std::vector<char> ToBytes(const std::string& text);

class ConformanceTest : public testing::Test, protected ChannelLife {
protected:
    ConformanceTest();
    ~ConformanceTest() override;

    // Stops, and compares what is written down with the recording of this test: the section with
    // its name in the file recordings/SUITE.txt. Where they differ, the one that was made is left
    // in the current folder as "SUITE.made", to be read and, if it is right, to be moved there.
    void Matches();
};
