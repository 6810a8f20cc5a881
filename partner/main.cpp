// tevrol-partner: the service end of one channel as a process of its own.
#include <exception>
#include <iostream>

#include "partner/program.h"

int main(int argc, char** argv) {
    try {
        tevrol::RunPartner(tevrol::ParsePartnerSettings(argc, argv));
    } catch (const std::exception& failure) {
        std::cerr << "tevrol-partner: " << failure.what() << std::endl;
        return 1;
    }
    return 0;
}
