// Who made a change: the request, and its routine, that the lab's journal names for it.
#ifndef DATAMORPH_JOURNAL_AUTHORS_H
#define DATAMORPH_JOURNAL_AUTHORS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "conversion_child.h"
#include "state_diff.h"
#include "unique_fd.h"

struct change_author {
  std::optional<size_t> step; // the request's index; none: nobody is known
  std::string routine;        // empty: not known
  // Others that changed it before, in their order.
  std::vector<std::pair<size_t, std::string>> earlier;
};

// Holds a few words per thing. Of a store that several routines wrote to, also 12 bytes per record,
// while its changes are asked for: they are to come store by store, as diff_states gives them.
class journal_authors {
public:
  // The journal is read a second time for stores of several routines.
  journal_authors(unique_fd journal, const std::vector<conversion_request> &requests);

  // Each of its lines, before anything is asked.
  void take(uint64_t number, const nlohmann::json &line);

  // The last one who changed it, by calls that went well.
  change_author of(const state_change &change);
  // Whether anything was written at a step, by whatever routine.
  bool wrote(size_t step) const;
  // The routines that wrote anything at a step, in the order in which they first did.
  std::vector<std::string> routines_of(size_t step) const;

private:
  using author_number = uint32_t; // in authors_
  struct thing {
    std::optional<author_number> whole; // the last call that made it what it is, as a whole
    uint64_t whole_line = 0;
    std::optional<author_number> last;  // the last call of any kind
    bool several = false;               // calls about records came from different routines
    std::vector<author_number> setters; // of a tag table, in their order
  };
  using record_author = std::pair<uint64_t, author_number>; // the hash of a key

  std::optional<author_number> author_of(const nlohmann::json &line);
  void take_call(uint64_t number, const nlohmann::json &line, author_number author);
  void take_store(uint64_t number, const nlohmann::json &line, author_number author);
  const thing *find(const std::string &kind, const std::string &name) const;
  void load_records(const std::string &file, const thing &about);
  change_author shown(std::optional<author_number> author) const;
  change_author shown(const std::vector<author_number> &authors) const;

  unique_fd journal_;
  std::vector<conversion_request> requests_;
  std::vector<change_author> authors_;
  std::map<std::pair<size_t, std::string>, author_number> numbers_;
  std::map<std::pair<std::string, std::string>, thing>
      things_;         // by kind and name; stores by their files
  std::string loaded_; // the file of the store whose records are in records_
  std::vector<record_author> records_;
};

#endif
