// What a result of the library means, in one line: the agent's own codes (1001 ... 27xx), the
// link's (1101 ... 1107), and the results that the service (here pelk-emulator) returns.
// Pure functions; any thread may use them.
#ifndef PELK_CLI_EXPLAIN_H
#define PELK_CLI_EXPLAIN_H

#include <string>

namespace PELK {
namespace Cli {

// "CODE (meaning)" for any result, whoever produced it.
std::string explain(int code);

}  // namespace Cli
}  // namespace PELK

#endif  // PELK_CLI_EXPLAIN_H
