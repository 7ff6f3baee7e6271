// A fault entry of board.json: its kind, its target (left out when empty) and its further
// settings ("skip", "times", "match", ...).
#pragma once

#include <nlohmann/json.hpp>

namespace testsupport {

inline nlohmann::json fault(const char *kind, const char *target = "",
                            nlohmann::json more = nlohmann::json::object()) {
    more["fault"] = kind;
    if (*target != '\0')
        more["target"] = target;
    return more;
}

} // namespace testsupport
