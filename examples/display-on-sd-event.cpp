// SPDX-License-Identifier: MIT
// The display of product-client.cpp on a loop of its own, that of sd-event: all handlers run on the
// thread of the loop.
#include <sys/eventfd.h>
#include <systemd/sd-event.h>
#include <tevrol/channel.h>
#include <unistd.h>

#include <functional>
#include <iostream>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace {

using Work = std::function<void()>;

// What other threads hand to the loop. sd-event itself is for one thread: a descriptor wakes it.
class Inbox {
public:
    explicit Inbox(sd_event* loop) {
        sd_event_add_io(loop, nullptr, m_fd, EPOLLIN, OnFilled, this);
    }
    ~Inbox() {
        close(m_fd);
    }
    Inbox(const Inbox&) = delete;
    Inbox& operator=(const Inbox&) = delete;

    void Add(Work work) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_work.push_back(std::move(work));
        eventfd_write(m_fd, 1);
    }

private:
    static int OnFilled(sd_event_source* /*source*/, int fd, unsigned /*events*/, void* data) {
        auto* inbox = static_cast<Inbox*>(data);
        eventfd_t count = 0;
        eventfd_read(fd, &count);
        std::vector<Work> work;
        {
            const std::lock_guard<std::mutex> lock(inbox->m_mutex);
            work.swap(inbox->m_work);
        }
        for (const Work& each : work) {
            each();
        }
        return 0;
    }

    const int m_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    std::mutex m_mutex;
    std::vector<Work> m_work;
};

}  // namespace

int main() {
    sd_event* loop = nullptr;
    if (sd_event_default(&loop) < 0) {
        return 1;
    }
    Inbox inbox(loop);
    tevrol::Options options;
    options.run = [&inbox](Work work) { inbox.Add(std::move(work)); };
    tevrol::Handlers handlers;
    handlers.lost = [](const std::string&) { std::cout << "no thermostat" << std::endl; };
    handlers.notification = [](const tevrol::Bytes& degrees) {
        std::cout << "now " << std::string(degrees.begin(), degrees.end()) << std::endl;
    };
    const tevrol::Channel thermostat("thermostat", tevrol::Role::Client, handlers, options);
    return sd_event_loop(loop) < 0 ? 1 : 0;
}
