#include "ServeJson.h"

#include <cctype>
#include <cstdlib>

#include "Utf16.h"

namespace orqcam {

namespace {

struct Reader {
    const std::string& s;
    size_t i = 0;

    void Space() {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
    }
    bool Take(char c) {
        Space();
        if (i < s.size() && s[i] == c) {
            ++i;
            return true;
        }
        return false;
    }
    bool String(std::string& out) {
        if (!Take('"')) return false;
        while (i < s.size()) {
            char c = s[i++];
            if (c == '"') return true;
            if (static_cast<unsigned char>(c) < 0x20) return false;
            if (c != '\\') {
                out += c;
                continue;
            }
            if (i >= s.size()) return false;
            char e = s[i++];
            switch (e) {
                case '"':
                case '\\':
                case '/':
                    out += e;
                    break;
                case 'n':
                    out += '\n';
                    break;
                case 't':
                    out += '\t';
                    break;
                case 'r':
                    out += '\r';
                    break;
                case 'b':
                    out += '\b';
                    break;
                case 'f':
                    out += '\f';
                    break;
                case 'u': {
                    if (s.size() - i < 4) return false;
                    std::string hex = s.substr(i, 4);
                    char* end = nullptr;
                    unsigned long code = std::strtoul(hex.c_str(), &end, 16);
                    if (*end) return false;
                    orq::text::AppendUtf8(static_cast<uint32_t>(code), out);
                    i += 4;
                    break;
                }
                default:
                    return false;
            }
        }
        return false;
    }
    bool Scalar(std::string& out) {
        Space();
        size_t start = i;
        while (i < s.size() && (std::isalnum(static_cast<unsigned char>(s[i])) || s[i] == '-' ||
                                s[i] == '+' || s[i] == '.'))
            ++i;
        out = s.substr(start, i - start);
        if (out == "true" || out == "false" || out == "null") return true;
        if (out.empty()) return false;
        char* end = nullptr;
        std::strtod(out.c_str(), &end);
        return *end == '\0';
    }
};

}  // namespace

bool ParseFlatObject(const std::string& body, std::map<std::string, JsonValue>& members) {
    Reader r{body};
    if (!r.Take('{')) return false;
    if (!r.Take('}')) {
        do {
            std::string key;
            JsonValue value;
            if (!r.String(key) || !r.Take(':')) return false;
            r.Space();
            if (r.i < body.size() && body[r.i] == '"') {
                value.isString = true;
                if (!r.String(value.text)) return false;
            } else if (!r.Scalar(value.text)) {
                return false;
            }
            members[key] = value;
        } while (r.Take(','));
        if (!r.Take('}')) return false;
    }
    r.Space();
    return r.i == body.size();
}

long long JsonInteger(const std::string& json, const std::string& key) {
    std::map<std::string, JsonValue> members;
    if (!ParseFlatObject(json, members)) return 0;
    auto found = members.find(key);
    if (found == members.end() || found->second.isString) return 0;
    return std::strtoll(found->second.text.c_str(), nullptr, 10);
}

std::string JsonText(const std::string& json, const std::string& key) {
    std::map<std::string, JsonValue> members;
    if (!ParseFlatObject(json, members)) return "";
    auto found = members.find(key);
    return found != members.end() && found->second.isString ? found->second.text : "";
}

}  // namespace orqcam
