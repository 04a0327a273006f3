// Failure injection for tests linked with ks_test_fault: the n-th call of the wrapped functions fails the way
// the system would make it fail (null and ENOMEM, EAGAIN, ...). Only calls from the test program's own
// objects count, not those inside the C and C++ libraries.
#pragma once

#include <string>

namespace fault {

// Make the n-th call (from 1) of any wrapped function fail from now on; 0 makes all succeed.
void fail_call(int n);
// Make every call of this function fail ("mmap", a literal); "" for none.
void fail_function(const char *name);
// Name of the function that fail_call made fail, or "".
std::string failed();

} // namespace fault
