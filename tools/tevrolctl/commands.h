// The subcommands. Each gets its own name as argv[0], returns an exit status or throws Failure.
#pragma once

namespace tevrolctl {

int Open(int argc, char** argv);
int Send(int argc, char** argv);
int Notify(int argc, char** argv);
int Partner(int argc, char** argv);
int Monitor(int argc, char** argv);
int Check(int argc, char** argv);
int Verify(int argc, char** argv);

}  // namespace tevrolctl
