// SPDX-License-Identifier: Apache-2.0
// JSON as qelctl prints it: members stay in their order, everything is ASCII, so that no text of
// others reaches a terminal raw.
#pragma once

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

#include "qelctl.h"

namespace qelctl {

using Json = nlohmann::ordered_json;

// An object of the documented form.
inline Json new_document() {
    return Json{{"format", 1}};
}

template <typename Value>
Json known_or_null(bool known, const Value &value) {
    return known ? Json(value) : Json(nullptr);
}

// In one line; what is not UTF-8 as U+FFFD.
inline std::string text_of(const Json &json) {
    return json.dump(-1, ' ', true, Json::error_handler_t::replace);
}

inline void print_json(const Json &json) {
    if (printf("%s\n", text_of(json).c_str()) < 0)
        fail_to_write();
}

}  // namespace qelctl
