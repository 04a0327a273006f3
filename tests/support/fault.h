// Failure injection for tests linked with ks_test_fault: the n-th call of one of the wrapped functions fails
// the way the system would make it fail (null and ENOMEM, EAGAIN, ...). Only calls made by objects of the
// test program itself are counted, not those inside the C and C++ libraries.
#pragma once

#include <string>

namespace fault {

// Let the n-th call (from 1) of any wrapped function fail from now on; 0 lets all succeed.
void fail_call(int n);
// Let every call of this function fail ("mmap", a literal); "" for none.
void fail_function(const char *name);
// Name of the function that fail_call made fail, or "".
std::string failed();

} // namespace fault
