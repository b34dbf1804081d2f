// Pieces of the OS layer's arithmetic, exposed so that tests can drive them with chosen inputs.
#ifndef PELK_COMMONLIB_OSALDETAIL_H
#define PELK_COMMONLIB_OSALDETAIL_H

#include <cstdint>
#include <ctime>

namespace PELK {
namespace Common {
namespace detail {

// The absolute deadline ms milliseconds after now. Nanoseconds are carried into seconds only
// when they exceed 1,000,000,000; a sum of exactly 1,000,000,000 is left as it stands, which
// makes the timed wait fail at once as an error (kept deliberately).
timespec deadlineAfterMs(const timespec& now, int ms);

// System calls the layer has made so far in this process, for benchmarks: socket calls, waits,
// sleeps, and condition wake-ups (a mutex that had to wait is not counted).
uint64_t syscallCount();

}  // namespace detail
}  // namespace Common
}  // namespace PELK

#endif  // PELK_COMMONLIB_OSALDETAIL_H
