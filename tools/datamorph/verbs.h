// The verbs, one function each. What they return is the exit status; they throw failure.
#ifndef DATAMORPH_VERBS_H
#define DATAMORPH_VERBS_H

#include <string>
#include <vector>

#include "output.h"

struct common_options {
  output::format format = output::format::table;
  bool verbose = false;
  bool yes = false;    // nothing is asked before it is discarded
  std::string library; // empty: where it usually is
};

int lab_create(const common_options &common, const std::string &dir, const std::string &from);
int lab_show(const common_options &common, const std::string &dir);
int lab_reboot(const common_options &common, const std::string &dir);

struct convert_options {
  std::string dir;
  std::string to;
  std::string from; // empty: the release that the switch runs
  std::vector<std::string> moments;
  std::vector<std::string> services;
  bool whole_table = false;
  bool accept_failures = false;
  bool accept_losses = false;
  unsigned timeout = 300; // seconds
  std::string plan;       // the file of a saved plan, which chooses all but dir; empty: none

  // Nothing but the release is chosen.
  bool is_whole() const {
    return from.empty() && moments.empty() && services.empty() && !whole_table &&
           !accept_failures && !accept_losses;
  }
};
int convert(const common_options &common, const convert_options &options);

struct rehearse_options {
  convert_options work;
  std::string save; // where a plan is written to; empty: nowhere
  std::string via;  // the release of another way; empty: none
  bool round_trip = false;
  std::string report; // where a page is written to; empty: nowhere
  bool matrix = false;
};
int rehearse(const common_options &common, const rehearse_options &options);

struct matrix_options {
  convert_options work;              // `to` and `from` stay empty
  std::vector<std::string> releases; // none: all that the switch has images of
};
int matrix(const common_options &common, const matrix_options &options);
int history(const common_options &common, const std::string &dir);
int rollback(const common_options &common, const std::string &dir);

struct store_options {
  std::string dir;
  std::string uri;
  std::string key;
  bool has_key = false; // a key may be empty
  std::string value;
  std::vector<std::string> uris;
  std::string file;
  bool text = false;   // keys and values are text, not hex
  bool create = false; // put: make the store when it is missing
  bool all = false;    // delete: the whole store
  bool merge = false;  // import: keep records that the document does not name
};
int store_list(const common_options &common, const store_options &options);
int store_show(const common_options &common, const store_options &options);
int store_get(const common_options &common, const store_options &options);
int store_put(const common_options &common, const store_options &options);
int store_delete(const common_options &common, const store_options &options);
int store_export(const common_options &common, const store_options &options);
int store_import(const common_options &common, const store_options &options);

// The store or, with a key, the record that is asked about.
int why(const common_options &common, const store_options &options);

struct diff_options {
  std::string a;
  std::string b;
  std::string expect; // the file of known differences; empty: none
};
int diff(const common_options &common, const diff_options &options);

struct check_options {
  std::string dir;
  std::string to;
  std::string from;       // empty: the release that the switch runs
  unsigned timeout = 300; // seconds
};
int check(const common_options &common, const check_options &options);

int services(const common_options &common);
int compare(const common_options &common, const std::string &a, const std::string &b);

#endif
