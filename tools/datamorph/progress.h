// How far a work is that takes its time: one line at the bottom of the terminal, with counts, and
// the time left where that can be told. It goes when anything else is written, and at the end.
#ifndef DATAMORPH_PROGRESS_H
#define DATAMORPH_PROGRESS_H

#include <chrono>
#include <cstdint>
#include <string>

class progress {
public:
  progress() = default;
  ~progress() { end(); }
  progress(const progress &) = delete;
  progress &operator=(const progress &) = delete;

  // A work of `total` units, "records"; 0 when that many are not known. Nothing is shown within the
  // first second (or what DATAMORPH_PROGRESS_DELAY says, in milliseconds; with 0 each unit is
  // told), nor where nobody sees it (see allow), nor while another one is shown: the line is of the
  // work that this one is a part of.
  void begin(const std::string &what, uint64_t total, const std::string &unit);
  void advance(uint64_t units = 1) { reach(done_ + units); }
  // How many there are, where that comes to be known later.
  void expect(uint64_t total) { total_ = total; }
  // So many units are done by now.
  void reach(uint64_t units);
  void end();

  // For main: whether it may be shown at all. It is, where standard error is a terminal that can
  // erase a line.
  static void allow(bool wanted);
  // For works whose total costs time to find out.
  static bool is_allowed();
  // Before anything else is written to the terminal.
  static void clear();

private:
  using clock = std::chrono::steady_clock;
  std::string line(clock::duration passed) const;
  void show();

  std::string what_;
  std::string unit_;
  uint64_t total_ = 0;
  uint64_t done_ = 0;
  clock::time_point begun_;
  clock::time_point next_; // when the line may be written again
};

#endif
