// Pieces of the OS layer's arithmetic, exposed so that tests can drive them with chosen inputs.
#ifndef PELK_COMMONLIB_OSALDETAIL_H
#define PELK_COMMONLIB_OSALDETAIL_H

#include <ctime>

namespace PELK {
namespace Common {
namespace detail {

// The absolute deadline ms milliseconds after now. Nanoseconds are carried into seconds only
// when they exceed 1,000,000,000; a sum of exactly 1,000,000,000 is left as it stands, which
// makes the timed wait fail at once as an error (kept deliberately).
timespec deadlineAfterMs(const timespec& now, int ms);

}  // namespace detail
}  // namespace Common
}  // namespace PELK

#endif  // PELK_COMMONLIB_OSALDETAIL_H
