// How every route of orqcam serve answers: JSON, never cached, errors of one shape.
#pragma once

#include <httplib.h>

#include <string>

#include "Output.h"

namespace orqcam {
namespace serve {

inline void Reply(httplib::Response& response, int status, const std::string& json) {
    response.status = status;
    response.set_header("Cache-Control", "no-store");
    response.set_content(json + "\n", "application/json");
}

inline std::string ErrorJson(const std::string& message, OrqResult result = ORQ_ERROR) {
    return JsonObject({{"error", JsonString(message)}, {"result", JsonString(ResultName(result))}});
}

inline void Error(httplib::Response& response, int status, const std::string& message,
                  OrqResult result = ORQ_ERROR) {
    Reply(response, status, ErrorJson(message, result));
}

// The status a failed SDK result stands for.
inline int StatusFor(OrqResult result) {
    switch (result) {
        case ORQ_UNKNOWN_PROPERTY:
            return 404;
        case ORQ_PROPERTY_CONSTRAINT:
            return 422;
        case ORQ_ERROR:
            return 409;
        default:
            return 503;  // the camera is gone or its session ended
    }
}

}  // namespace serve
}  // namespace orqcam
