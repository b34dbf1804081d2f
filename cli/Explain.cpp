#include "Explain.h"

#include "ServiceCodes.h"

namespace PELK {
namespace Cli {

namespace {

struct Meaning {
    int code;
    const char* text;
};

// Every code the agent returns itself; all others come from the service.
const Meaning kLibraryCodes[] = {
    {1001, "a required argument is missing"},
    {1002, "the app is not registered with the service"},
    {1008, "out of memory"},
    {1100, "the app is not registered with the service"},
    {1101, "out of memory for the service's reply"},
    {1102, "the request could not be made or its reply not taken"},
    {1103, "the link to the service is busy and could not be locked"},
    {1104, "the link's socket could not be locked"},
    {1105, "the request could not be sent to the service"},
    {1106, "the service did not answer in time"},
    {1107, "the connection to the service was lost"},
    {1200, "the app is registered already"},
    {1201, "out of memory while registering"},
    {1202, "no app name was given"},
    {1203, "the app name is empty"},
    {1204, "the app name is longer than 259 characters"},
    {1206, "the service at 127.0.0.1:20014 cannot be reached; is pelk-emulator running?"},
    {1300, "the app is not registered"},
    {1301, "out of memory while unregistering"},
    {1400, "the app is not registered"},
    {1401, "out of memory for the data"},
    {1402, "no data was given"},
    {1403, "no target app, or its address is empty"},
    {1404, "the data is longer than 65535 bytes"},
    {1405, "the data is empty"},
    {1500, "the app is not registered"},
    {1501, "out of memory for the UDP data"},
    {1502, "no UDP data was given"},
    {1503, "no target app, or its address is empty"},
    {1504, "the UDP data is empty"},
    {1600, "the app is not registered"},
    {1601, "out of memory for the large payload"},
    {1602, "no payload was given"},
    {1603, "no target app, or its address is empty"},
    {1604, "the payload is empty"},
    {1700, "the app is not registered"},
    {1702, "no file path was given"},
    {1703, "the file path cannot be made absolute"},
    {1800, "the app is not registered"},
    {1801, "out of memory for the file list"},
    {1802, "no file list was given"},
    {1803, "the file list is empty"},
    {1804, "no place for the task ID was given"},
    {1805, "no target app was given"},
    {1806, "a file path cannot be made absolute"},
    {1807, "a file name is 226 characters or longer"},
    {1900, "the app is not registered"},
    {1901, "out of memory for the broadcast"},
    {1902, "no broadcast data was given"},
    {1903, "no broadcast address was given"},
    {1904, "the broadcast address is longer than 15 characters"},
    {1905, "the broadcast data is longer than 2039 bytes"},
    {2000, "the app is not registered"},
    {2001, "out of memory for the transfer command"},
    {2100, "the app is not registered"},
    {2101, "out of memory for the receive option"},
    {2102, "no receive option was given"},
    {2200, "the app is not registered"},
    {2202, "no place for the receive option was given"},
    {2300, "the app is not registered"},
    {2301, "out of memory for the app search"},
    {2302, "no list for the apps was given"},
    {2400, "the app is not registered"},
    {2401, "out of memory for the app refresh"},
    {2500, "the app is not registered"},
    {2501, "out of memory for the network description"},
    {2502, "no place for the network description was given"},
    {2700, "the app is not registered"},
    {2701, "no list for the apps was given"},
};

}  // namespace

const char* describeLibraryCode(int code) {
    for (const Meaning& meaning : kLibraryCodes) {
        if (meaning.code == code) {
            return meaning.text;
        }
    }
    return nullptr;
}

std::string explain(int code) {
    const char* library = describeLibraryCode(code);
    if (library != nullptr) {
        return std::to_string(code) + " (" + library + ")";
    }
    const char* service = Emulator::describeServiceResult(code);
    return std::to_string(code) + " (the service's result: " +
           (service != nullptr ? service : "a refusal this program does not know") + ")";
}

}  // namespace Cli
}  // namespace PELK
