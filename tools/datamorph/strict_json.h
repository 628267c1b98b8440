// JSON documents that people write: every mistake is named, none is passed over.
#ifndef DATAMORPH_STRICT_JSON_H
#define DATAMORPH_STRICT_JSON_H

#include <functional>
#include <string>

#include <nlohmann/json.hpp>

// JSON text without repeated members. Throws failure(3) naming `origin`.
nlohmann::json parse_json(const std::string &text, const std::string &origin);

// The same of a document whose lists are long, of which no more is made than one item: those of the
// member `list`, of the document itself or of its member "result", are given to `take` with where
// the list stands. What is returned has all lists of these two objects empty.
enum class list_place { document, result };
nlohmann::json
parse_json_items(const std::string &text, const std::string &origin, const std::string &list,
                 const std::function<void(list_place, const nlohmann::json &)> &take);

// JSON text of any origin; discarded when it is none or nested deeper than any document of this
// program: what walks in it calls itself.
nlohmann::json parse_shallow(const std::string &text);

#endif
