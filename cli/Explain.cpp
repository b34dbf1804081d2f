#include "Explain.h"

#include "ActionManager/ResultCodes.h"
#include "ServiceCodes.h"

namespace PELK {
namespace Cli {

std::string explain(int code) {
    const char* library = describeResult(code);
    if (library != nullptr) {
        return std::to_string(code) + " (" + library + ")";
    }
    const char* service = Emulator::describeServiceResult(code);
    return std::to_string(code) + " (the service's result: " +
           (service != nullptr ? service : "a refusal this program does not know") + ")";
}

}  // namespace Cli
}  // namespace PELK
