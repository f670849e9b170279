// The command line: global options, the verb and its own options, and the help texts.
#pragma once

#include <string>
#include <vector>

namespace orqcam {

struct Options {
    std::vector<std::string> models;  // --virtual, canonical spelling, one camera each
    int camera = 0;
    bool cameraGiven = false;
    bool all = false;  // every camera
    bool json = false;
    bool quiet = false;
    int timeoutMs = 10000;
    // --virtual-latency US:NS, of every transfer and every byte of the virtual cameras
    int latencyUs = 0, latencyNsPerByte = 0;
    std::string verb;
    std::vector<std::string> args;
    // Options of single verbs.
    std::string toHost;        // shoot --to-host DIR
    std::string dir;           // download --dir DIR
    std::string out;           // preview --out DIR
    bool deleteAfter = false;  // download --delete
    bool allFiles = false;     // download --all
    int frames = 10;           // preview --frames N
    std::string listen;        // serve --listen ADDRESS:PORT
    std::string token;         // serve --token TEXT
    // node and rig (docs/rig.md)
    std::string broker;        // --broker URL
    std::string rig;           // --rig NAME
    std::string node;          // node --node NAME
    std::string store;         // node --store DIR
    std::string cafile;        // --cafile FILE
    std::string passwordFile;  // --password-file FILE
    std::string shotId;        // rig shoot --id ID
    int leadMs = 1000;         // rig shoot --lead MS
    std::string layout;        // rig collect --layout set|rig
    bool version = false;
};

enum class Parsed { Run, Done, Usage };

// Fills options; Done when --help was answered, Usage after saying what is wrong.
Parsed ParseArguments(const std::vector<std::string>& arguments, Options& options);

// The models a virtual camera can be, and the canonical spelling of one given in any case.
const std::vector<std::string>& KnownModels();
bool CanonicalModel(const std::string& text, std::string& model);

// A whole decimal number in int range, nothing else.
bool ParseInteger(const std::string& text, int& value);

}  // namespace orqcam
