// SPDX-License-Identifier: MIT
// The display of product-client.cpp on a loop of its own, that of Qt: all handlers run on the
// thread of the application object.
#include <tevrol/channel.h>

#include <QCoreApplication>
#include <functional>
#include <iostream>
#include <string>
#include <utility>

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    tevrol::Options options;
    options.run = [&application](std::function<void()> work) {
        QMetaObject::invokeMethod(&application, std::move(work), Qt::QueuedConnection);
    };
    tevrol::Handlers handlers;
    handlers.lost = [](const std::string&) { std::cout << "no thermostat" << std::endl; };
    handlers.notification = [](const tevrol::Bytes& degrees) {
        std::cout << "now " << std::string(degrees.begin(), degrees.end()) << std::endl;
    };
    const tevrol::Channel thermostat("thermostat", tevrol::Role::Client, handlers, options);
    return QCoreApplication::exec();
}
