#include "Args.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include "Output.h"

namespace orqcam {

namespace {

struct VerbSpec {
    const char* name;
    const char* synopsis;
    const char* help;
    size_t minArgs;
    size_t maxArgs;
    std::vector<std::string> flags;  // options of this verb alone
};

const std::vector<VerbSpec>& Verbs() {
    static const std::vector<VerbSpec> verbs = {
        {"list", "list", "the cameras found, numbered for --camera", 0, 0, {}},
        {"info",
         "info",
         "identity of the camera: name, serial, module version, zoom, video",
         0,
         0,
         {}},
        {"props", "props", "every property on offer: value and offered values", 0, 0, {}},
        {"get", "get NAME|ID", "one property", 1, 1, {}},
        {"set",
         "set NAME|ID VALUE",
         "change a property and wait until the camera has it; fails if it did not land",
         2,
         2,
         {}},
        {"shoot",
         "shoot [--to-host DIR]",
         "take a picture and wait for its file; --to-host downloads it into DIR. With --all "
         "every camera fires as close together as the SDK allows, and each one's delay after "
         "the first is reported",
         0,
         0,
         {"--to-host"}},
        {"files", "files", "the files on the card", 0, 0, {}},
        {"download",
         "download ID|--all [--dir DIR] [--delete]",
         "copy a file (every file with --all) into DIR (default: the current folder); "
         "--delete removes it from the card afterwards. Put --all before the verb for every "
         "camera; each camera's files then go into DIR/cameraN",
         0,
         1,
         {"--all", "--dir", "--delete"}},
        {"delete", "delete ID", "remove a file from the card", 1, 1, {}},
        {"serve",
         "serve [--listen ADDRESS:PORT] [--token TEXT] [--broker URL --rig NAME]",
         "every camera's live view and controls as a web page and a JSON API "
         "(docs/serve-api.md), on 127.0.0.1:8080 by default; beyond this machine every "
         "request needs the token (a random one is printed when none is given). With --broker "
         "and --rig the page also shows that rig (docs/rig.md) and fires it. Runs until "
         "interrupted",
         0,
         0,
         {"--listen", "--token", "--broker", "--rig", "--cafile", "--password-file"}},
        {"node",
         "node --broker URL --rig NAME [--node NAME] [--store DIR] [--listen ADDRESS:PORT]",
         "serve every camera to a rig over an MQTT broker (docs/rig.md): fire at agreed times, "
         "keep each shot's pictures in DIR (default ./orqcam-rig) and serve them with a token. "
         "URL: mqtt://[user[:password]@]host[:port] or mqtts://... with --cafile FILE; the "
         "password also from --password-file FILE or ORQ_RIG_PASSWORD. Runs until interrupted",
         0,
         0,
         {"--broker", "--rig", "--node", "--store", "--listen", "--cafile", "--password-file"}},
        {"rig",
         "rig --broker URL --rig NAME list|watch [S]|shoot [CAMERA..] [--id ID] [--lead MS]"
         "|set NAME VALUE|zoom N|max|collect SHOT --dir D [--layout set|rig]",
         "drive a rig of nodes (docs/rig.md): list its nodes and cameras, print its messages "
         "for S seconds, fire every camera (or those named NODE or NODE/CAMERA) MS after now "
         "(default 1000), set a setting or the zoom everywhere, or fetch a shot's pictures from "
         "every node into D/SHOT (or D/rig/NNN, one folder per camera) with a manifest",
         1,
         66,
         {"--broker", "--rig", "--cafile", "--password-file", "--id", "--lead", "--dir",
          "--layout"}},
        {"preview",
         "preview [--frames N] [--out DIR]",
         "take N live-view frames (default 10); --out writes them as BMP files, otherwise the "
         "frame rate and sizes are shown",
         0,
         0,
         {"--frames", "--out"}},
        {"zoom",
         "zoom [N|max]",
         "move the zoom to step N or the longest; without one, show it",
         0,
         1,
         {}},
        {"focus",
         "focus [N|shift D]",
         "manual focus to position N, or D steps from where it is; without one, show it",
         0,
         2,
         {}},
        {"video", "video start|stop", "start or stop a movie; stop reports its file", 1, 1, {}},
        {"reset", "reset", "restart the camera's shooting state", 0, 0, {}},
        {"watch",
         "watch [SECONDS]",
         "print every event, one line each with a monotonic timestamp and the camera "
         "(default 10 s); with --json one JSON object per line, written as the event happens",
         0,
         1,
         {}},
    };
    return verbs;
}

const VerbSpec* FindVerb(const std::string& name) {
    for (const VerbSpec& verb : Verbs())
        if (name == verb.name) return &verb;
    return nullptr;
}

void PrintHelp(FILE* stream) {
    std::fputs(
        "usage: orqcam [OPTIONS] VERB [ARGS]\n"
        "\n"
        "Remote control of cameras over USB, through the OrqSDK library.\n"
        "\n"
        "Verbs:\n",
        stream);
    for (const VerbSpec& verb : Verbs())
        std::fprintf(stream, "  %-42s %s\n", verb.synopsis, verb.help);
    std::fputs(
        "\n"
        "Options:\n"
        "  --virtual MODEL   a virtual camera of that model instead of USB (any case);\n"
        "                    repeat it for several cameras. Its card is a folder kept from\n"
        "                    run to run, orqsim-cards/SERIAL beside the SDK's logs\n"
        "  --camera N        the camera numbered N by `list` (default 0): virtual cameras\n"
        "                    in the order --virtual names them, USB cameras by serial\n"
        "  --virtual-latency US:NS  the virtual cameras' latency per transfer (microseconds)\n"
        "                    and per byte (nanoseconds), as a USB link has (e.g. 125:28)\n"
        "  --all             run the verb on every camera\n"
        "  --json            one JSON document on stdout, errors included\n"
        "                    ({\"error\": ..., \"result\": ...}); stderr carries errors only\n"
        "  --quiet           no progress bar and no human text; errors still go to stderr\n"
        "  --timeout SECONDS how long to wait for the camera (default 10)\n"
        "  --help            this text; VERB --help for one verb\n"
        "  --version         versions of orqcam and of the SDK\n"
        "\n",
        stream);
    std::fputs("Models of --virtual:", stream);
    for (const std::string& model : KnownModels()) std::fprintf(stream, " %s", model.c_str());
    std::fputs(
        "\n"
        "\n"
        "Properties are named by id or by name, in any case. A value is first matched against\n"
        "the property's value names (any case), where the property has value names; otherwise,\n"
        "or when no name matches, it must be a number, the SDK's value. Results are given by\n"
        "name: the SDK's (ORQ_PROPERTY_CONSTRAINT, ORQ_DISCONNECTED...), or orqcam's own for\n"
        "failures no SDK result stands for: ORQCAM_USAGE, ORQCAM_NO_CAMERA, ORQCAM_TIMEOUT.\n"
        "\n"
        "Exit codes:\n"
        "  0  success\n"
        "  1  the SDK could not be loaded or started (another program may be using it)\n"
        "  2  usage: unknown verb, option, model, property, camera number or value\n"
        "  3  no camera found, or it cannot be opened\n"
        "  4  the camera or the SDK failed\n"
        "  5  timeout: the camera did not finish in time\n"
        "  6  the camera refused the value (not on offer, read-only)\n"
        "  7  node, rig: the broker refused us (user, password) or cannot be reached\n"
        "\n"
        "On Linux a camera needs the udev rule installed with the SDK\n"
        "(/usr/lib/udev/rules.d/70-orqsdk.rules) to be opened by a normal user.\n",
        stream);
}

void PrintVerbHelp(const VerbSpec& verb, FILE* stream) {
    std::fprintf(stream, "usage: orqcam [OPTIONS] %s\n\n%s.\n", verb.synopsis, verb.help);
    std::fputs("\nOptions of every verb: see orqcam --help.\n", stream);
}

bool Usage(const std::string& message) {
    Outcome failure = Failure(kExitUsage, message + " (see orqcam --help)");
    if (io.json) std::fprintf(io.out, "%s\n", failure.json.c_str());
    return false;
}

// Flags that take a value, and where they store it.
bool TakeValue(const std::vector<std::string>& arguments, size_t& i, std::string& value) {
    if (i + 1 >= arguments.size()) return Usage(arguments[i] + " needs a value");
    value = arguments[++i];
    return true;
}

}  // namespace

const std::vector<std::string>& KnownModels() {
    static const std::vector<std::string> models = {"A1400", "A2200", "A4000",   "A495",  "A800",
                                                    "A810",  "G15",   "IXUS145", "SX130", "SX150",
                                                    "SX160", "SX170", "SX40",    "SX500", "SX510"};
    return models;
}

bool CanonicalModel(const std::string& text, std::string& model) {
    for (const std::string& known : KnownModels()) {
        if (Lower(known) == Lower(text)) {
            model = known;
            return true;
        }
    }
    return false;
}

bool ParseInteger(const std::string& text, int& value) {
    if (text.empty()) return false;
    char* end = nullptr;
    errno = 0;
    long parsed = std::strtol(text.c_str(), &end, 10);
    if (*end || errno == ERANGE || parsed < INT_MIN || parsed > INT_MAX) return false;
    value = static_cast<int>(parsed);
    return true;
}

namespace {

// What one step of the scan made of the argument at hand; a bad one's usage error is said.
enum class Taken { No, Yes, Bad };

// A flag of the verb given before it.
Taken VerbFlag(const std::vector<std::string>& arguments, size_t& i, Options& options) {
    const std::string& arg = arguments[i];
    std::string value;
    if (arg == "--to-host")
        return TakeValue(arguments, i, options.toHost) ? Taken::Yes : Taken::Bad;
    if (arg == "--dir") return TakeValue(arguments, i, options.dir) ? Taken::Yes : Taken::Bad;
    if (arg == "--out") return TakeValue(arguments, i, options.out) ? Taken::Yes : Taken::Bad;
    if (arg == "--listen") return TakeValue(arguments, i, options.listen) ? Taken::Yes : Taken::Bad;
    if (arg == "--token") return TakeValue(arguments, i, options.token) ? Taken::Yes : Taken::Bad;
    const std::pair<const char*, std::string*> texts[] = {
        {"--broker", &options.broker}, {"--rig", &options.rig},
        {"--node", &options.node},     {"--store", &options.store},
        {"--cafile", &options.cafile}, {"--password-file", &options.passwordFile},
        {"--id", &options.shotId},     {"--layout", &options.layout}};
    for (const auto& [flag, target] : texts)
        if (arg == flag) return TakeValue(arguments, i, *target) ? Taken::Yes : Taken::Bad;
    if (arg == "--lead") {
        if (!TakeValue(arguments, i, value)) return Taken::Bad;
        if (!ParseInteger(value, options.leadMs) || options.leadMs < 0 || options.leadMs > 60000) {
            Usage("--lead takes milliseconds from 0 to 60000, not '" + value + "'");
            return Taken::Bad;
        }
        return Taken::Yes;
    }
    if (arg == "--delete") {
        options.deleteAfter = true;
    } else if (arg == "--all") {
        options.allFiles = true;
    } else if (arg == "--frames") {
        if (!TakeValue(arguments, i, value)) return Taken::Bad;
        if (!ParseInteger(value, options.frames) || options.frames < 1 || options.frames > 100000) {
            Usage("--frames takes a number from 1 to 100000, not '" + value + "'");
            return Taken::Bad;
        }
    } else {
        return Taken::No;
    }
    return Taken::Yes;
}

// An option of every verb.
Taken CommonOption(const std::vector<std::string>& arguments, size_t& i, Options& options,
                   bool& help) {
    const std::string& arg = arguments[i];
    std::string value;
    if (arg == "--virtual") {
        if (!TakeValue(arguments, i, value)) return Taken::Bad;
        std::string model;
        if (!CanonicalModel(value, model)) {
            std::string known;
            for (const std::string& name : KnownModels()) known += " " + name;
            Usage("unknown model '" + value + "'; the models are:" + known);
            return Taken::Bad;
        }
        options.models.push_back(model);
    } else if (arg == "--camera") {
        if (!TakeValue(arguments, i, value)) return Taken::Bad;
        if (!ParseInteger(value, options.camera) || options.camera < 0) {
            Usage("--camera takes a camera number from `orqcam list`, not '" + value + "'");
            return Taken::Bad;
        }
        options.cameraGiven = true;
    } else if (arg == "--timeout") {
        if (!TakeValue(arguments, i, value)) return Taken::Bad;
        int seconds = 0;
        if (!ParseInteger(value, seconds) || seconds < 1 || seconds > 3600) {
            Usage("--timeout takes seconds from 1 to 3600, not '" + value + "'");
            return Taken::Bad;
        }
        options.timeoutMs = seconds * 1000;
    } else if (arg == "--virtual-latency") {
        if (!TakeValue(arguments, i, value)) return Taken::Bad;
        size_t colon = value.find(':');
        if (colon == std::string::npos ||
            !ParseInteger(value.substr(0, colon), options.latencyUs) ||
            !ParseInteger(value.substr(colon + 1), options.latencyNsPerByte) ||
            options.latencyUs < 0 || options.latencyUs > 1000000 || options.latencyNsPerByte < 0 ||
            options.latencyNsPerByte > 1000000) {
            Usage("--virtual-latency takes US:NS (per transfer, per byte), not '" + value + "'");
            return Taken::Bad;
        }
    } else if (arg == "--all") {
        options.all = true;
    } else if (arg == "--json" || arg == "--quiet" || arg == "-q") {
        // Taken in the first pass.
    } else if (arg == "--help" || arg == "-h") {
        help = true;
    } else if (arg == "--version") {
        options.version = true;
    } else {
        return Taken::No;
    }
    return Taken::Yes;
}

// The verb's name or one of its arguments.
Taken Word(const std::string& arg, Options& options, const VerbSpec* verb) {
    if (arg.size() > 1 && arg[0] == '-' && !(std::isdigit(arg[1]) && verb)) {
        Usage("unknown option '" + arg + "'" +
              (verb ? std::string(" for ") + verb->name : std::string()));
        return Taken::Bad;
    }
    if (options.verb.empty()) {
        if (!FindVerb(arg)) {
            Usage("unknown verb '" + arg + "'");
            return Taken::Bad;
        }
        options.verb = arg;
    } else {
        options.args.push_back(arg);
    }
    return Taken::Yes;
}

// Help, or the checks of the whole command line once it is read.
Parsed Finish(const Options& options, bool help) {
    if (help) {
        const VerbSpec* verb = FindVerb(options.verb);
        if (verb) {
            PrintVerbHelp(*verb, io.out);
        } else {
            PrintHelp(io.out);
        }
        return Parsed::Done;
    }
    if (options.version) return Parsed::Run;
    if (options.verb.empty()) {
        if (!io.json) PrintHelp(io.err);
        Usage("no verb given");
        return Parsed::Usage;
    }
    const VerbSpec* verb = FindVerb(options.verb);
    if (options.args.size() < verb->minArgs || options.args.size() > verb->maxArgs) {
        Usage(std::string("usage: orqcam ") + verb->synopsis);
        return Parsed::Usage;
    }
    if (options.all && options.cameraGiven) {
        Usage("--all and --camera exclude each other");
        return Parsed::Usage;
    }
    if ((options.verb == "node" || options.verb == "rig" ||
         (options.verb == "serve" && !(options.broker.empty() && options.rig.empty()))) &&
        (options.broker.empty() || options.rig.empty())) {
        Usage(options.verb + " needs --broker URL and --rig NAME");
        return Parsed::Usage;
    }
    if (options.verb == "download" && options.allFiles == !options.args.empty()) {
        Usage("download takes a file id or --all");
        return Parsed::Usage;
    }
    return Parsed::Run;
}

}  // namespace

Parsed ParseArguments(const std::vector<std::string>& arguments, Options& options) {
    bool help = false;
    // Pass 1 finds --json and --quiet, so that even the first usage error is told their way.
    for (const std::string& arg : arguments) {
        if (arg == "--json") io.json = options.json = true;
        if (arg == "--quiet" || arg == "-q") io.quiet = options.quiet = true;
    }
    for (size_t i = 0; i < arguments.size(); ++i) {
        const std::string& arg = arguments[i];
        const VerbSpec* verb = options.verb.empty() ? nullptr : FindVerb(options.verb);
        bool own =
            verb && std::find(verb->flags.begin(), verb->flags.end(), arg) != verb->flags.end();
        Taken taken = own ? VerbFlag(arguments, i, options) : Taken::No;
        if (taken == Taken::No) taken = CommonOption(arguments, i, options, help);
        if (taken == Taken::No) taken = Word(arg, options, verb);
        if (taken == Taken::Bad) return Parsed::Usage;
    }
    return Finish(options, help);
}

}  // namespace orqcam
