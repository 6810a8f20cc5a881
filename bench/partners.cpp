// SPDX-License-Identifier: MIT
// tevrol-bench-partners: the service ends of the named channels, joined and waiting, in a process
// of their own. Commands on standard input: "open NAME" (announce the SYN), "leave NAME", "again
// NAME" (leave and join).
#include <deque>
#include <exception>
#include <iostream>
#include <string>

#include "devkit/partner.h"

namespace {

struct NamedPartner {
    explicit NamedPartner(const std::string& channel) : name(channel), partner(channel) {}

    void Join() {
        partner.Join();
        std::cout << "joined " << name << ' ' << partner.UniqueName() << std::endl;
    }

    void Obey(const std::string& command) {
        if (command == "open") {
            partner.Open();
        } else if (command == "leave" || command == "again") {
            partner.Leave();
        }
        if (command == "again") {
            Join();
        }
    }

    const std::string name;
    tevrol::Partner partner;
};

}  // namespace

int main(int argc, char** argv) {
    try {
        std::deque<NamedPartner> partners;
        for (int i = 1; i < argc; ++i) {
            partners.emplace_back(argv[i]).Join();
        }
        std::string command;
        std::string name;
        while (std::cin >> command >> name) {
            for (auto& partner : partners) {
                if (partner.name == name) {
                    partner.Obey(command);
                }
            }
        }
    } catch (const std::exception& failure) {
        std::cerr << "tevrol-bench-partners: " << failure.what() << '\n';
        return 1;
    }
    return 0;
}
