// Board time between I2C transfers, from their trace events.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

namespace testsupport {

// The register a transfer's first message writes ("" for none), as four hex digits.
inline std::string register_of(const nlohmann::json &transfer) {
    return transfer["msgs"][0].value("w", "").substr(0, 4);
}

// For each transfer after the first, the board time that passed between the end of the one
// before and its own start: an event carries the time its transfer ended, and each byte of a
// transfer (address bytes, data, the stop) takes 9 bit times at speed_hz.
inline std::vector<int64_t> pauses_before(const std::vector<nlohmann::json> &transfers,
                                          int64_t speed_hz = 100000) {
    std::vector<int64_t> pauses;
    for (size_t i = 1; i < transfers.size(); ++i) {
        int64_t bytes = 1; // the stop
        for (const nlohmann::json &m : transfers[i]["msgs"])
            bytes +=
                1 + static_cast<int64_t>((m.value("w", "").size() + m.value("r", "").size()) / 2);
        int64_t took = bytes * 9 * 1000000000 / speed_hz;
        pauses.push_back(transfers[i]["t"].get<int64_t>() - transfers[i - 1]["t"].get<int64_t>() -
                         took);
    }
    return pauses;
}

} // namespace testsupport
