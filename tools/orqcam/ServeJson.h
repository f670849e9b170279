// Request bodies of orqcam serve: one flat JSON object of strings, numbers and literals.
#pragma once

#include <map>
#include <string>

namespace orqcam {

struct JsonValue {
    std::string text;  // a string unescaped; a number or literal as written
    bool isString = false;
};

// False for anything but one object whose members are strings, numbers, true, false or null.
bool ParseFlatObject(const std::string& body, std::map<std::string, JsonValue>& members);

// A member of a flat object: 0 or "" when absent or of another kind.
long long JsonInteger(const std::string& json, const std::string& key);
std::string JsonText(const std::string& json, const std::string& key);

}  // namespace orqcam
