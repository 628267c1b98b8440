// What stands where in a switch that is described: found out before anything is made, so that two
// parts of a description that cannot both be there are refused and not half built.
#ifndef DATAMORPH_LAYOUT_H
#define DATAMORPH_LAYOUT_H

#include <map>
#include <string>

// Made in every switch.
inline constexpr const char *usual_folders[] = {"/mnt/pss", "/bootflash", "/tmp",
                                                "/dev/shm", "/images",    "/var/run/mts"};

class layout {
public:
  layout();
  // Takes an absolute path for a folder, which may be claimed again, or for a file, which may not;
  // the folders above it come with it. What is in the way; empty when nothing is.
  std::string claim_folder(const std::string &path);
  std::string claim_file(const std::string &path);

private:
  std::string claim_parents(const std::string &path);

  enum class kind { folder, file };
  std::map<std::string, kind> claimed_;
};

#endif
