#include "ServeAuth.h"

#include <random>

#include "Output.h"
#include "ServeReply.h"

namespace orqcam {
namespace serve {

namespace {

std::string RandomToken() {
    std::random_device device;
    std::string token;
    const char* digits = "0123456789abcdef";
    for (int i = 0; i < 32; ++i) token += digits[device() % 16];
    return token;
}

bool SameText(const std::string& a, const std::string& b) {
    // Compares every byte, so that the time taken does not tell how much of a guess was right.
    unsigned char differ = a.size() == b.size() ? 0 : 1;
    for (size_t i = 0; i < a.size(); ++i) differ |= a[i] ^ b[i % (b.empty() ? 1 : b.size())];
    return differ == 0 && !b.empty();
}

bool Authorised(const std::string& token, const httplib::Request& request,
                httplib::Response& response) {
    if (token.empty()) {
        // Without a token only this machine can reach the server; a page of another site that
        // renamed itself to 127.0.0.1 still names its own host.
        std::string host = request.get_header_value("Host");
        host = host.substr(0, host.rfind(':'));
        if (!IsLoopback(host) && host != "[::1]") {
            Error(response, 403, "this server answers only to its loopback address");
            return false;
        }
        return true;
    }
    std::string given = request.get_param_value("token");
    std::string header = request.get_header_value("Authorization");
    if (header.rfind("Bearer ", 0) == 0) given = header.substr(7);
    if (!SameText(given, token)) {
        Error(response, 401, "a valid token is needed (?token= or Authorization: Bearer)");
        return false;
    }
    return true;
}

}  // namespace

bool IsLoopback(const std::string& host) {
    return host == "127.0.0.1" || host == "::1" || host == "localhost";
}

std::string ChooseToken(const std::string& given, const std::string& host, bool always) {
    if (!given.empty()) return given;
    if (always) return RandomToken();
    if (IsLoopback(host)) return "";
    std::string token = RandomToken();
    Say("listening beyond this machine: every request needs the token %s\n", token.c_str());
    return token;
}

bool Refused(const std::string& token, const httplib::Request& request,
             httplib::Response& response) {
    if (!Authorised(token, request, response)) return true;
    // State changes come as JSON, which a page of another site cannot send without asking.
    if (request.method == "POST" &&
        request.get_header_value("Content-Type").rfind("application/json", 0) != 0) {
        Error(response, 415, "POST bodies are application/json");
        return true;
    }
    return false;
}

}  // namespace serve
}  // namespace orqcam
