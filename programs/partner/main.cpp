// SPDX-License-Identifier: MIT
// tevrol-partner: the service end of one channel as a process of its own.
#include "programs/common/run.h"
#include "programs/partner/front-end.h"

int main(int argc, char** argv) {
    programs::RunToTheEnd(
        [](int count, char** arguments) {
            return programs::RunPartner("tevrol-partner", count, arguments);
        },
        argc, argv);
}
