// The rig map, D/rig-map.txt: which folder of the rig layout is which camera, by serial. People
// edit it, so it is read strictly and rewritten only by appending to what they wrote.
#include <cctype>
#include <fstream>
#include <sstream>

#include "Rig.h"

namespace orqcam {
namespace rig {

namespace {

bool Blank(unsigned char c) {
    return c == ' ' || c == '\t' || c == '\r';
}

}  // namespace

bool ReadRigMap(const std::string& path, RigMap& map, std::string& error) {
    map = RigMap();
    map.path = path;
    std::ifstream in(path, std::ios::binary);
    if (!in) return true;  // no map yet: every camera is new
    std::ostringstream text;
    text << in.rdbuf();
    map.text = text.str();
    std::istringstream lines(map.text);
    std::string line;
    std::map<long long, int> numberLines;
    std::map<std::string, int> serialLines;
    for (int number = 1; std::getline(lines, line); ++number) {
        const std::string where = path + " line " + std::to_string(number) + ": ";
        size_t at = 0;
        while (at < line.size() && Blank(static_cast<unsigned char>(line[at]))) ++at;
        if (at == line.size() || line[at] == '#') continue;
        size_t digits = at;
        while (digits < line.size() && std::isdigit(static_cast<unsigned char>(line[digits])))
            ++digits;
        const std::string folder = line.substr(at, digits - at);
        size_t serialAt = digits;
        while (serialAt < line.size() && Blank(static_cast<unsigned char>(line[serialAt])))
            ++serialAt;
        size_t serialEnd = serialAt;
        while (serialEnd < line.size() && !Blank(static_cast<unsigned char>(line[serialEnd])))
            ++serialEnd;
        size_t rest = serialEnd;
        while (rest < line.size() && Blank(static_cast<unsigned char>(line[rest]))) ++rest;
        if (folder.size() < 3 || folder.size() > 9 || serialAt == digits || serialEnd == serialAt ||
            rest != line.size()) {
            error = where + "not 'NNN SERIAL' (a number of three digits or more, a serial)";
            return false;
        }
        const std::string serial = line.substr(serialAt, serialEnd - serialAt);
        const long long value = std::stoll(folder);
        if (numberLines.count(value)) {
            error = where + "number " + folder + " is given on line " +
                    std::to_string(numberLines[value]) + " too";
            return false;
        }
        if (serialLines.count(serial)) {
            error = where + "serial " + serial + " is given on line " +
                    std::to_string(serialLines[serial]) + " too";
            return false;
        }
        numberLines[value] = number;
        serialLines[serial] = number;
        map.folders[serial] = folder;
        map.next = std::max(map.next, value + 1);
    }
    return true;
}

std::string RigFolderOf(RigMap& map, const std::string& serial) {
    auto found = map.folders.find(serial);
    if (found != map.folders.end()) return found->second;
    char folder[24];
    std::snprintf(folder, sizeof folder, "%03lld", map.next++);
    if (!map.text.empty() && map.text.back() != '\n') map.text += '\n';
    map.text += std::string(folder) + " " + serial + "\n";
    map.changed = true;
    return map.folders[serial] = folder;
}

bool SaveRigMap(RigMap& map) {
    if (!map.changed) return true;
    if (!WriteAtomically(map.path, map.text)) return false;
    map.changed = false;
    return true;
}

}  // namespace rig
}  // namespace orqcam
