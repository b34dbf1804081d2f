// pelk: the library's command line. Each command registers as an app with the service on
// 127.0.0.1:20014 (pelk-emulator, or the service on a device), does its work through the
// agent's public operations, and unregisters. Every failure prints the library's code with its
// meaning and exits 1; a usage error exits 2.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "Explain.h"
#include "Session.h"

using PELK::DLNADevice;
using PELK::FileInfo;
using PELK::InteractionApp;
using PELK::Cli::Session;
using PELK::Cli::complain;
using PELK::Cli::explain;
using PELK::Cli::say;

namespace {

const char* const kUsage =
    "usage: pelk COMMAND [OPTION...] [ARGUMENT...]\n"
    "  listen --name NAME [--receive-dir DIR]   print apps joining and leaving, data and files\n"
    "                                           received (files go to DIR), until interrupted\n"
    "  apps                                     list the other registered apps\n"
    "  send --to NAME|IP:ID TEXT                send TEXT to an app\n"
    "  send-file --to NAME|IP:ID FILE...        send files to an app, with progress\n"
    "  devices                                  list media servers and renderers\n"
    "  browse [--server NAME|UUID] [ID]         list a server's root, or its folder ID\n"
    "  download [--server S] [--to-dir DIR] ID...  copy items of a server into DIR\n"
    "  play [--server S] [--renderer R] ID...   play items of a server on a renderer\n"
    "  play --pause|--resume|--stop [--renderer R]\n"
    "Every command registers as --name NAME (default pelk) with app number --number N (default 1).\n"
    "--verbose keeps the library's own log lines on standard error.\n"
    "Failures print the library's code and its meaning, and exit with 1; usage errors with 2.\n";

// A transfer is given up when the service says nothing about it for this long.
constexpr int kIdleSeconds = 60;

struct Args {
    std::string command;
    std::map<std::string, std::string> options;
    std::set<std::string> flags;  // of play
    std::vector<std::string> words;
    bool fVerbose = false;

    std::string option(const std::string& name, const std::string& fallback = std::string()) const {
        const auto found = options.find(name);
        return found == options.end() ? fallback : found->second;
    }
};

const std::set<std::string> kValueOptions = {"--name", "--number", "--to", "--receive-dir", "--server",
                                             "--renderer", "--to-dir"};
const std::set<std::string> kFlags = {"--pause", "--resume", "--stop"};

bool parse(int argc, char** argv, Args& args) {
    if (argc < 2) {
        return false;
    }
    args.command = argv[1];
    for (int i = 2; i < argc; ++i) {
        const std::string word = argv[i];
        if (kValueOptions.count(word) != 0 && i + 1 < argc) {
            args.options[word] = argv[++i];
        } else if (kFlags.count(word) != 0) {
            args.flags.insert(word);
        } else if (word == "--verbose") {
            args.fVerbose = true;
        } else if (word.compare(0, 2, "--") == 0) {
            return false;
        } else {
            args.words.push_back(word);
        }
    }
    return true;
}

int failed(const char* what, int code) {
    complain("pelk: %s failed: %s", what, explain(code).c_str());
    return 1;
}

int refused(const std::string& why) {
    complain("pelk: %s", why.c_str());
    return 1;
}

// "127.0.0.1:3" as an address; anything else is a name.
bool parseAddress(const std::string& text, InteractionApp& app) {
    const size_t colon = text.rfind(':');
    if (colon == std::string::npos || colon == 0 || colon + 1 == text.size() ||
        text.find_first_not_of("0123456789.") != colon || text.find_first_not_of("0123456789", colon + 1) != std::string::npos) {
        return false;
    }
    app.SetIPv4(text.substr(0, colon).c_str());
    app.nAppID = atoi(text.c_str() + colon + 1);
    return true;
}

// The app that --to names: an address as it is, or the one other app of that name.
int findApp(Session& session, const std::string& to, InteractionApp& app) {
    if (parseAddress(to, app)) {
        return 0;
    }
    std::vector<InteractionApp> apps;
    const int result = session.agent().searchInteractionApp(&apps);
    if (result != 0) {
        return failed("app search", result);
    }
    int matches = 0;
    for (const InteractionApp& candidate : apps) {
        if (candidate.fLocalDevice == 0 && to == candidate.szAppName) {
            app = candidate;
            ++matches;
        }
    }
    if (matches != 1) {
        return refused(matches == 0 ? "no other app is named \"" + to + "\" (see pelk apps)"
                                    : "several apps are named \"" + to + "\": name one as IP:ID");
    }
    return 0;
}

// The first server (or renderer) found, or the one whose name or UUID is wanted.
int findDevice(Session& session, bool renderer, const std::string& wanted, DLNADevice& device) {
    std::vector<DLNADevice> devices;
    const int result = renderer ? session.agent().searchDMR(&devices) : session.agent().searchDMS(&devices);
    if (result != 0) {
        return failed(renderer ? "renderer search" : "server search", result);
    }
    for (const DLNADevice& candidate : devices) {
        if (wanted.empty() || wanted == candidate.name || wanted == candidate.UUID) {
            device = candidate;
            return 0;
        }
    }
    return refused(std::string("no media ") + (renderer ? "renderer" : "server") +
                   (wanted.empty() ? " was found" : " is named \"" + wanted + "\"") + " (see pelk devices)");
}

// An item's whole record, as its server lists it in its folder.
int findItem(Session& session, const DLNADevice& server, const std::string& id, FileInfo& item) {
    FileInfo probe;
    PELK::Wire::FillText(probe.objectID, id.c_str());
    PELK::Wire::FillText(probe.sourceDMSUDN, PELK::Wire::TextOf(server.UUID).c_str());
    FileInfo parent;
    int result = session.agent().getParentDirectoryInfo(&probe, &parent);
    if (result != 0) {
        return failed(("finding item " + id).c_str(), result);
    }
    std::vector<FileInfo> items;
    result = session.agent().getFileList(&server, &parent, &items);
    if (result != 0) {
        return failed(("listing the folder of item " + id).c_str(), result);
    }
    for (const FileInfo& candidate : items) {
        if (PELK::Wire::TextOf(candidate.objectID) == id) {
            item = candidate;
            return 0;
        }
    }
    return refused("the server has no item " + id);
}

int findItems(Session& session, const DLNADevice& server, const std::vector<std::string>& ids,
              std::vector<FileInfo>& items) {
    for (const std::string& id : ids) {
        FileInfo item;
        const int result = findItem(session, server, id, item);
        if (result != 0) {
            return result;
        }
        items.push_back(item);
    }
    return 0;
}

// Waits for the command's transfer; on success the caller reports it.
int finishTransfer(Session& session, const char* what) {
    switch (session.waitForTransfer(kIdleSeconds)) {
        case Session::FINISHED: return 0;
        case Session::CANCELLED: return refused(std::string(what) + " was cancelled");
        case Session::FAILED: return refused(std::string(what) + " failed: the service gave up on it");
        case Session::LOST: return failed(what, 1107);
        case Session::INTERRUPTED: return refused(std::string(what) + " interrupted");
        case Session::STALLED: return failed(what, 1106);
    }
    return 1;
}

std::string absolute(const std::string& path) {
    char resolved[4096];
    return realpath(path.c_str(), resolved) != nullptr ? std::string(resolved) : path;
}

// ---------------------------------------------------------------------------------------------
// Commands

int listen(Session& session, const Args& args) {
    const std::string folder = absolute(args.option("--receive-dir", "."));
    const int result = session.receiveInto(folder, true);
    if (result != 0) {
        return failed(("receiving into " + folder).c_str(), result);
    }
    const InteractionApp own = session.agent().getOwnApp();
    say("listening as \"%s\" %s:%d; files go to %s", own.szAppName, own.szIPv4, own.nAppID, folder.c_str());
    session.waitForInterrupt();
    say("stopped");
    return 0;
}

int apps(Session& session, const Args&) {
    std::vector<InteractionApp> found;
    const int result = session.agent().searchInteractionApp(&found);
    if (result != 0) {
        return failed("app search", result);
    }
    int others = 0;
    for (const InteractionApp& app : found) {
        if (app.fLocalDevice == 0) {
            say("%s:%d  number %d  \"%s\"", app.szIPv4, app.nAppID, app.nType, app.szAppName);
            ++others;
        }
    }
    if (others == 0) {
        say("no other apps");
    }
    return 0;
}

int send(Session& session, const Args& args) {
    InteractionApp target;
    int result = findApp(session, args.option("--to"), target);
    if (result != 0) {
        return result;
    }
    std::string text;
    for (const std::string& word : args.words) {
        text += (text.empty() ? "" : " ") + word;
    }
    result = session.agent().sendData(text.data(), static_cast<unsigned int>(text.size()), &target, false, 10);
    if (result != 0) {
        return failed("send", result);
    }
    say("sent %zu bytes to %s:%d", text.size(), target.szIPv4, target.nAppID);
    return 0;
}

int sendFile(Session& session, const Args& args) {
    InteractionApp target;
    int result = findApp(session, args.option("--to"), target);
    if (result != 0) {
        return result;
    }
    uint32_t taskID = 0;
    result = session.agent().sendFileList(&args.words, &target, Session::progressCallback(), session.progressUser(),
                                          &taskID, false, 0);
    if (result != 0) {
        return failed("send-file", result);
    }
    result = finishTransfer(session, "send-file");
    if (result == 0) {
        say("sent %zu file(s), %llu bytes, to %s:%d (task %u)", args.words.size(),
            static_cast<unsigned long long>(session.lastEvent().ullListTotalSize), target.szIPv4, target.nAppID,
            taskID);
    }
    return result;
}

int devices(Session& session, const Args&) {
    std::vector<DLNADevice> found;
    int result = session.agent().searchDMS(&found);
    if (result == 0) {
        result = session.agent().searchDMR(&found);
    }
    if (result != 0) {
        return failed("device search", result);
    }
    for (const DLNADevice& device : found) {
        say("%s  \"%s\"  %s  %s", device.type == PELK::DLNA_DEVICE_DMR ? "renderer" : "server  ", device.name,
            device.UUID, device.IPv4);
    }
    if (found.empty()) {
        say("no media devices");
    }
    return 0;
}

int browse(Session& session, const Args& args) {
    DLNADevice server;
    int result = findDevice(session, false, args.option("--server"), server);
    if (result != 0) {
        return result;
    }
    std::vector<FileInfo> items;
    if (args.words.empty()) {
        result = session.agent().getFileList(&server, &items);
    } else {
        FileInfo folder;
        PELK::Wire::FillText(folder.objectID, args.words[0].c_str());
        PELK::Wire::FillText(folder.sourceDMSUDN, PELK::Wire::TextOf(server.UUID).c_str());
        result = session.agent().getFileList(&server, &folder, &items);
    }
    if (result != 0) {
        return failed("browse", result);
    }
    for (const FileInfo& item : items) {
        const std::string type = PELK::Wire::TextOf(item.objectType);
        say("%-6s %s  \"%s\"", type.rfind("object.container", 0) == 0 ? "folder" : "item",
            PELK::Wire::TextOf(item.objectID).c_str(), PELK::Wire::TextOf(item.objectTitle).c_str());
    }
    return 0;
}

int download(Session& session, const Args& args) {
    DLNADevice server;
    std::vector<FileInfo> items;
    int result = findDevice(session, false, args.option("--server"), server);
    if (result == 0) {
        result = findItems(session, server, args.words, items);
    }
    if (result != 0) {
        return result;
    }
    const std::string folder = absolute(args.option("--to-dir", "."));
    result = session.receiveInto(folder, false);
    if (result != 0) {
        return failed(("receiving into " + folder).c_str(), result);
    }
    int taskID = 0;
    result = session.agent().copyFileList(&server, &items, Session::progressCallback(), &taskID);
    if (result != 0) {
        return failed("download", result);
    }
    result = finishTransfer(session, "download");
    if (result == 0) {
        say("downloaded %zu item(s), %llu bytes, into %s", items.size(),
            static_cast<unsigned long long>(session.lastEvent().ullListTotalSize), folder.c_str());
    }
    return result;
}

int play(Session& session, const Args& args) {
    DLNADevice renderer;
    int result = findDevice(session, true, args.option("--renderer"), renderer);
    if (result != 0) {
        return result;
    }
    if (!args.flags.empty()) {
        const std::string command = *args.flags.begin();
        PELK::Agent::ActionAgent& agent = session.agent();
        result = command == "--pause"    ? agent.pauseCurPlayingFile(&renderer)
                 : command == "--resume" ? agent.resumeCurPlayingFile(&renderer)
                                         : agent.stopCurPlayingFile(&renderer);
        if (result != 0) {
            return failed(("play " + command).c_str(), result);
        }
        say("%s \"%s\"", command.c_str() + 2, renderer.name);
        return 0;
    }
    DLNADevice server;
    std::vector<FileInfo> items;
    result = findDevice(session, false, args.option("--server"), server);
    if (result == 0) {
        result = findItems(session, server, args.words, items);
    }
    if (result != 0) {
        return result;
    }
    result = session.agent().playSelectedFile(0, &renderer, &items, &server, nullptr, nullptr, 0);
    if (result != 0) {
        return failed("play", result);
    }
    say("playing \"%s\" on \"%s\"", items[0].objectTitle, renderer.name);
    return 0;
}

struct Command {
    const char* name;
    int (*run)(Session&, const Args&);
    bool fListener;
    bool (*valid)(const Args&);
};

const Command kCommands[] = {
    {"listen", listen, true, [](const Args& a) { return a.options.count("--name") != 0 && a.words.empty(); }},
    {"apps", apps, false, [](const Args& a) { return a.words.empty(); }},
    {"send", send, false, [](const Args& a) { return a.options.count("--to") != 0 && !a.words.empty(); }},
    {"send-file", sendFile, false, [](const Args& a) { return a.options.count("--to") != 0 && !a.words.empty(); }},
    {"devices", devices, false, [](const Args& a) { return a.words.empty(); }},
    {"browse", browse, false, [](const Args& a) { return a.words.size() <= 1; }},
    {"download", download, false, [](const Args& a) { return !a.words.empty(); }},
    {"play", play, false, [](const Args& a) { return a.flags.size() == 1 ? a.words.empty() : a.flags.empty() && !a.words.empty(); }},
};

}  // namespace

int main(int argc, char** argv) {
    Args args;
    const Command* command = nullptr;
    if (parse(argc, argv, args)) {
        for (const Command& candidate : kCommands) {
            if (args.command == candidate.name && candidate.valid(args)) {
                command = &candidate;
            }
        }
    }
    if (command == nullptr) {
        const bool help = argc == 2 && (std::string(argv[1]) == "--help" || std::string(argv[1]) == "help");
        fputs(kUsage, help ? stdout : stderr);
        return help ? 0 : 2;
    }
    Session::catchStopSignals();
    if (!args.fVerbose) {
        Session::quietLibrary();
    }
    Session session;
    const int result = session.open(args.option("--name", "pelk"), atoi(args.option("--number", "1").c_str()),
                                    command->fListener);
    if (result != 0) {
        return failed("registration", result);
    }
    return command->run(session, args);
}
