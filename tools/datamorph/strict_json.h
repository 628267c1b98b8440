// JSON documents that people write: every mistake is named, none is passed over.
#ifndef DATAMORPH_STRICT_JSON_H
#define DATAMORPH_STRICT_JSON_H

#include <string>

#include <nlohmann/json.hpp>

// JSON text without repeated members. Throws failure(3) naming `origin`.
nlohmann::json parse_json(const std::string &text, const std::string &origin);

// JSON text of any origin; discarded when it is none or nested deeper than any document of this
// program: what walks in it calls itself.
nlohmann::json parse_shallow(const std::string &text);

#endif
