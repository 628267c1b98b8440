// Who made a change: the request, and its routine, that the lab's journal names for it.
#ifndef DATAMORPH_JOURNAL_AUTHORS_H
#define DATAMORPH_JOURNAL_AUTHORS_H

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "conversion_child.h"
#include "record_calls.h"
#include "state_diff.h"

struct change_author {
  std::optional<size_t> step; // the request's index; none: nobody is known
  std::string routine;        // empty: not known
  // Others that changed it before, in their order.
  std::vector<std::pair<size_t, std::string>> earlier;
};

// Holds a few words per thing, of a store also up to 64 calls on it as a whole; what was done to
// records is mostly on disk (record_calls tells how much is not).
class journal_authors {
public:
  journal_authors(const std::vector<conversion_request> &requests,
                  record_calls::file_maker make_file);

  // Each of the journal's lines, before anything is asked. Throws failure as record_calls does.
  void take(uint64_t number, const nlohmann::json &line);

  // The last one who made it what it is, or removed it, by calls that went well. Throws failure as
  // record_calls does.
  change_author of(const state_change &change);
  // Whether anything was written at a step, by whatever routine.
  bool wrote(size_t step) const;
  // The routines that wrote anything at a step, in the order in which they first did.
  std::vector<std::string> routines_of(size_t step) const;

private:
  using author_number = uint32_t; // in authors_

  // A call on a store with all of its records. Which of them it touched nobody knows but of a
  // destruction.
  struct whole_call {
    uint64_t line = 0;
    author_number author = 0;
    bool destroyed = false;
    bool put = false;     // added or changed some
    bool removed = false; // some
  };

  // What became of a tag table: each author who left it other than it was, and what it was then.
  struct table_story {
    std::string before; // its sum
    std::vector<std::pair<author_number, std::string>> after;
  };

  struct thing {
    std::optional<author_number> whole; // the last call that made it what it is, as a whole
    std::optional<author_number> last;  // the last call of any kind
    bool several = false;               // calls came from different routines
    std::vector<whole_call> calls;      // on the records of a store, in their order
    table_story table;
  };

  class record_story;

  std::optional<author_number> author_of(const nlohmann::json &line);
  void take_call(uint64_t number, const nlohmann::json &line, author_number author);
  void take_table(const nlohmann::json &line, author_number author);
  void take_store(uint64_t number, const nlohmann::json &line, author_number author);
  static void take_whole(thing *about, const nlohmann::json &line, const whole_call &call);
  const thing *find(const std::string &kind, const std::string &name) const;
  change_author of_record(const state_change &change, const thing &about);
  change_author of_table(const thing &about) const;
  change_author shown(std::optional<author_number> author) const;
  change_author shown(const std::vector<author_number> &authors, author_number last) const;

  std::vector<conversion_request> requests_;
  std::vector<change_author> authors_;
  std::map<std::pair<size_t, std::string>, author_number> numbers_;
  std::map<std::pair<std::string, std::string>, thing>
      things_; // by kind and name; stores by their files
  record_calls records_;
};

#endif
