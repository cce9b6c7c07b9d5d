// Holding the benchmark to one CPU, so that both processes of an exchange
// share it: children started afterwards inherit the placement.
#pragma once

namespace bench {

// Pins the calling process to the first CPU it may run on. Call it while the
// process has one thread. Returns that CPU's number, or -1 when the system
// refused (errno or the Windows error in *error).
int PinToOneCpu(int* error);

}  // namespace bench
