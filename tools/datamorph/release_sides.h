// On which side of the change of the records' layouts releases are, as the conversion library
// orders them.
#ifndef DATAMORPH_RELEASE_SIDES_H
#define DATAMORPH_RELEASE_SIDES_H

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "library.h"
#include "records.h"

// Nothing when the library cannot order the release, or its name is that of none.
std::optional<layout_side> side_of(const library &library, const std::string &release);

class release_sides {
public:
  // Asks the library (`wanted` as load_library takes it) in a process in this root, which is killed
  // when it says nothing for so many seconds. Throws failure when a signal came.
  release_sides(const std::string &wanted, int root, const std::vector<std::string> &releases,
                unsigned timeout);

  // Nothing when it is not known.
  std::optional<layout_side> of(const std::string &release) const;
  // Tells on standard error that records were decoded by their length, and why.
  void explain_missing() const;

private:
  std::map<std::string, layout_side> sides_;
  std::string trouble_;
};

#endif
