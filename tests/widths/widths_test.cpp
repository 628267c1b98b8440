// Every routine at every pair of releases, on the busy switch and on ones whose records are spoilt
// at random: what it gave, asked of the platform, left in the stores and traced. A digest of that
// has to be the one that the build of the other width gets from the same source and seeds.
//
//   DATAMORPH_WIDTHS_SEEDS=N       prints the digests, of so many spoilt switches besides the whole
//   one,
//                                  and compares nothing
//   DATAMORPH_WIDTHS_SHOW=ROUTINE  prints what the digests of that routine are made of
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "fault/busy_switch.h"
#include "libdatamorph_private.h"
#include "support/library_fixture.h"

namespace {

namespace fs = std::filesystem;

constexpr uint32 k_seeds = 1; // of the digests in expected.txt
constexpr char k_log[] = "/mnt/pss/data_morph.log";
constexpr char k_last_log[] = "/mnt/pss/data_morph.last";
constexpr char k_marker[] = "/tmp/datamorphcheck";
const char *const k_trace_files[] = {"/bootflash/data_morph_vrrp_mgr.log",
                                     "/bootflash/data_morph_vrrp_eng.log"};

// The list lies outside of the root that a test runs in.
extern "C" const char g_expected_begin[];
extern "C" const char g_expected_end[];
asm(".pushsection .rodata\n"
    "g_expected_begin: .incbin \"" EXPECTED_DIGESTS "\"\n"
    "g_expected_end:\n"
    ".popsection\n");

// ---- What may differ ---------------------------------------------------------------------------

bool is_time(const std::string &text, size_t at) { // "<Fri Nov 20 18:32:00 2026>"
  return at + 25 < text.size() && text[at] == '<' && text[at + 25] == '>' && text[at + 14] == ':' &&
         text[at + 17] == ':';
}

std::string without_times(const std::string &text) {
  std::string kept;
  for (size_t at = 0; at < text.size(); ++at) {
    if (is_time(text, at)) {
      kept += "<time>";
      at += 25;
    } else {
      kept += text[at];
    }
  }
  return kept;
}

std::string without_source_lines(const std::string &text) { // "<time> routine:123 "
  std::istringstream lines(text);
  std::string kept;
  for (std::string line; std::getline(lines, line); kept += line + '\n') {
    const size_t colon = line.find(':');
    if (line.rfind("<time> ", 0) == 0 && colon != std::string::npos) {
      line.erase(colon + 1, line.find(' ', colon) - colon - 1);
    }
  }
  return kept;
}

// All that is taken out; nothing else is.
constexpr struct {
  const char *what;
  std::string (*taken_out)(const std::string &text);
  bool of_log;
  bool of_trace_files;
} k_taken_out[] = {
    {"the moment at which a line is written", without_times, true, true},
    {"the number of the line in the source, which moves with every edit", without_source_lines,
     false, true},
};

std::string told_log(std::string text) {
  for (const auto &row : k_taken_out) {
    text = row.of_log ? row.taken_out(text) : text;
  }
  return text;
}

std::string told_trace_file(std::string text) {
  for (const auto &row : k_taken_out) {
    text = row.of_trace_files ? row.taken_out(text) : text;
  }
  return text;
}

// ---- What is told of a run ---------------------------------------------------------------------

std::string hex(const std::string &text) {
  static constexpr char digits[] = "0123456789abcdef";
  std::string told;
  for (const char c : text) {
    told += digits[static_cast<uint8>(c) >> 4];
    told += digits[static_cast<uint8>(c) & 15];
  }
  return told;
}

uint32 digest_of(const std::string &text) {
  uint32 digest = 2166136261u;
  for (const char c : text) {
    digest = (digest ^ static_cast<uint8>(c)) * 16777619u;
  }
  return digest;
}

std::string hex_number(uint32 number) {
  char text[16];
  std::snprintf(text, sizeof text, "%08x", number);
  return text;
}

class widths_test : public library_fixture {
protected:
  void SetUp() override {
    library_fixture::SetUp();
    switch_root::mount_small("/mnt/pss", "16m"); // each line of a log is synced
    switch_root::mount_small("/bootflash", "16m");
    set_busy_environment();
  }

  void make_switch(const releases &change, uint32 seed) {
    fs::remove_all("/cfg");
    for (const char *file : {k_log, k_last_log, k_marker}) {
      fs::remove(file);
    }
    for (const char *file : k_trace_files) {
      switch_root::write_file(file, "");
    }
    make_busy_switch(change);
    if (seed != 0) {
      spoil(seed);
    }
  }

  // Some records of every store get other bytes, or fewer, or more.
  void spoil(uint32 seed) {
    std::mt19937 random(seed); // the same numbers everywhere
    const auto below = [&random](uint32 limit) { return static_cast<uint32>(random()) % limit; };
    const auto byte = [&] { return static_cast<char>(below(256)); };
    const auto spoilt = [&](std::string text) {
      const uint32 size = static_cast<uint32>(text.size());
      switch (size == 0 ? 3 : below(4)) {
      case 1:
        text[below(size)] = byte();
        return text;
      case 2:
        return text.substr(0, below(size));
      case 3:
        return text + byte() + byte();
      default:
        return text;
      }
    };
    for (const std::string &uri : platform.store_uris()) {
      platform_double::records_t records;
      for (const auto &[key, value] : platform.records(uri)) {
        const std::string its_key = below(6) == 0 ? spoilt(key) : key;
        records[its_key] = spoilt(value);
      }
      platform.set_store(uri, records);
    }
    const uint32 answer = below(4);
    platform.reply_always(3, bytes("00 00 00") + static_cast<char>(answer));
  }

  std::string told_stores() {
    for (const uint32 handle : platform.open_handles()) {
      if (pss_close(handle) != 0) {
        pss2_close(handle);
      }
    }
    std::string told;
    for (const std::string &uri : platform.store_uris()) {
      told += "store " + uri + '\n';
      for (const auto &[key, value] : platform.records(uri)) {
        told += "  " + hex(key) + " " + hex(value) + '\n';
      }
    }
    for (const uint32 sap : platform.saps()) {
      told += "access point " + std::to_string(sap) + '\n';
    }
    return told;
  }

  static std::string told_files() {
    std::vector<std::string> files;
    for (const auto &entry : fs::recursive_directory_iterator("/cfg")) {
      files.push_back(entry.path());
    }
    std::sort(files.begin(), files.end());
    std::string told;
    for (const std::string &file : files) {
      told += "file " + file + " " + hex(switch_root::read_file(file)) + '\n';
    }
    return told;
  }

  static std::string told_tag_tables() {
    std::string told;
    for (int vdc = 0; vdc < SYSMGR_VDC_ROWS; ++vdc) {
      const tlv_array_t *table = sysmgr_info_tbl[vdc].srv_tag_info_tbl;
      if (table != nullptr) {
        const auto *first = reinterpret_cast<const char *>(table);
        told += "tags " + std::to_string(vdc) + " " +
                hex(std::string(first, tlv_array_size_get(table, 1))) + '\n';
      }
    }
    return told;
  }

  std::string told_run(const routine &what, const releases &change, uint32 seed) {
    make_switch(change, seed);
    const open_stores open = what.takes_stores ? open_for_steps() : open_stores();
    platform.clear();
    syserr_t status = 0;
    const std::string text = captured_stderr([&] { status = what.run(open, change); });
    std::string told = "seed " + std::to_string(seed) + " to " + change.to + " from " +
                       change.from + " status " + hex_number(status) + '\n';
    for (const std::string &call : platform.calls()) {
      told += call + '\n';
    }
    told += told_stores() + told_files() + told_tag_tables();
    told += "standard error\n" + text;
    told += "log\n" + told_log(switch_root::read_file(k_last_log) + switch_root::read_file(k_log)) +
            '\n';
    for (const char *file : k_trace_files) {
      told += std::string(file) + '\n' + told_trace_file(switch_root::read_file(file));
    }
    return told;
  }

  // A line per routine and release that it goes to: a digest for each release that it comes from.
  std::vector<std::string> digests(uint32 seeds) {
    const char *shown = std::getenv("DATAMORPH_WIDTHS_SHOW");
    std::vector<std::string> lines;
    for (const routine &what : k_routines) {
      for (const char *to : k_releases) {
        std::string line = std::string(what.name) + " to " + to + ":";
        for (const char *from : k_releases) {
          std::string told;
          for (uint32 seed = 0; seed <= seeds; ++seed) {
            told += told_run(what, {to, from}, seed);
            ++runs_;
          }
          if (shown != nullptr && std::string(shown) == what.name) {
            std::printf("%s\n%s", what.name, told.c_str());
          }
          line += " " + hex_number(digest_of(told));
        }
        lines.push_back(line);
      }
    }
    return lines;
  }

  unsigned long runs_ = 0;
};

TEST_F(widths_test, what_is_taken_out_of_the_traces) {
  EXPECT_EQ("<time> a <time> b<c>\n",
            told_log("<Fri Nov 20 18:32:00 2026> a <Thu Jan  1 00:00:00 1970> b<c>\n"));
  EXPECT_EQ("<time> routine: VR 10: up\n",
            told_trace_file("<Fri Nov 20 18:32:00 2026> routine:123 VR 10: up\n"));
  EXPECT_EQ("<time> routine:123 x", told_log("<Fri Nov 20 18:32:00 2026> routine:123 x"));
}

TEST_F(widths_test, a_run_is_told_by_all_that_it_leaves) {
  const releases change = {"4.2(1)", "4.1(5)"};
  const auto what = std::find_if(k_routines.begin(), k_routines.end(), [](const routine &one) {
    return std::string(one.name) == "vrrp_mgr_data_morph_startup_for_upgrade";
  });
  ASSERT_NE(k_routines.end(), what);
  const std::string told = told_run(*what, change, 0);
  EXPECT_EQ("seed 0 to 4.2(1) from 4.1(5) status 00000000\n"
            "pss_open(\"nonvolatile:/cfg/bin/vrrp-cfg_config_sav\")\n",
            told.substr(0, 98));
  for (const char *part :
       {"store nonvolatile:/cfg/bin/vrrp-cfg_config_sav\n  00 7a65726f\n", "access point 3\n",
        "file /cfg/globalpss_table.snp ", "\nstandard error\nlog\n\n",
        "<time> vrrp_handle_generic_convert: Done with conversion in Mgr\n"}) {
    EXPECT_NE(std::string::npos, told.find(part)) << part;
  }
  EXPECT_NE(told, told_run(*what, change, 1));
}

TEST_F(widths_test, every_routine_at_every_pair_of_releases) {
  const char *wanted = std::getenv("DATAMORPH_WIDTHS_SEEDS");
  const uint32 seeds = wanted != nullptr ? static_cast<uint32>(std::atoi(wanted)) : k_seeds;
  const std::vector<std::string> got = digests(seeds);
  std::printf("widths: %lu runs in %zu bits, seeds 0 to %u\n", runs_, sizeof(void *) * 8, seeds);
  ASSERT_LE(5000u, runs_);
  if (wanted != nullptr) {
    for (const std::string &line : got) {
      std::printf("digest %s\n", line.c_str());
    }
    return;
  }
  std::istringstream expected(std::string(g_expected_begin, g_expected_end));
  size_t at = 0;
  for (std::string line; std::getline(expected, line); ++at) {
    ASSERT_LT(at, got.size()) << "is expected and missing: " << line;
    ASSERT_EQ(line, got[at]) << "line " << at + 1
                             << " of tests/widths/expected.txt; what it is made "
                             << "of: DATAMORPH_WIDTHS_SHOW=ROUTINE";
  }
  EXPECT_EQ(got.size(), at) << "lines that are not expected";
}

} // namespace
