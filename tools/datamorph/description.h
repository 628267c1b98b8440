// The description that a lab switch is built from. docs/switch-description.md tells its form.
#ifndef DATAMORPH_DESCRIPTION_H
#define DATAMORPH_DESCRIPTION_H

#include <string>
#include <vector>

#include <sys/types.h>

#include "platform/pss2.h"
#include "switch_state.h"

struct record_description {
  std::string key;
  std::string value;
};

struct store_description {
  std::string uri;
  pss2_nonvol_params params = {}; // the lab's own when the description names none
  bool has_params = false;
  std::vector<record_description> records;
};

struct file_description {
  std::string path;
  mode_t mode = 0644;
  std::string content;
};

struct access_point_description {
  uint32 sap = 0;
  std::string owner;
};

struct description {
  switch_state state;
  std::vector<std::string> releases; // an image each
  std::vector<store_description> stores;
  std::vector<file_description> files;
  std::vector<access_point_description> access_points;
};

// Throws failure(3) naming `origin` (a file), the member and what is wrong with it.
description parse_description(const std::string &text, const std::string &origin);

// The same of a document that holds stores only, as `store export` writes it.
std::vector<store_description> parse_stores(const std::string &text, const std::string &origin);

// Whether a description can name a store so: "volatile:/folder/name", in UTF-8.
bool is_described_uri(const std::string &uri);

// The description that `lab create` uses when none is named.
extern const char example_description[];

#endif
