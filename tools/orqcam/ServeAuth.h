// Who may ask orqcam serve, and how: the token, the loopback host without one, JSON for changes.
#pragma once

#include <httplib.h>

#include <string>

namespace orqcam {
namespace serve {

bool IsLoopback(const std::string& host);

// The token for a server on `host`: the one given; else a random one when `always` (orqcam node)
// or when the host reaches beyond this machine, and then it is said on the output.
std::string ChooseToken(const std::string& given, const std::string& host, bool always);

// Before any route: true when the request was answered already, 401 without the token (403
// without a token on the server, for a Host that is not loopback), 415 for a POST not of JSON.
bool Refused(const std::string& token, const httplib::Request& request,
             httplib::Response& response);

}  // namespace serve
}  // namespace orqcam
