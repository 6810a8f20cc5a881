// SPDX-License-Identifier: MIT
// The subcommands of tevrolctl. Each is a Command (programs/common/run.h).
#pragma once

namespace programs {

int Open(int argc, char** argv);
int Send(int argc, char** argv);
int Notify(int argc, char** argv);
int Monitor(int argc, char** argv);
int Check(int argc, char** argv);
int Verify(int argc, char** argv);

}  // namespace programs
