#include "crash/disk_model.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <xxhash.h>

namespace {

namespace fs = std::filesystem;

constexpr int root = 1;
constexpr uint64_t sector = 512;

[[noreturn]] void give_up(const std::string &what) {
  std::fprintf(stderr, "disk_model: %s: %s\n", what.c_str(), std::strerror(errno));
  std::abort();
}

void put(std::string *content, uint64_t at, const std::string &bytes) {
  if (content->size() < at + bytes.size()) {
    content->resize(at + bytes.size());
  }
  content->replace(at, bytes.size(), bytes);
}

void write_file(const std::string &path, const disk_node &node) {
  const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
  const std::string &content = node.content;
  if (fd < 0 || write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
    give_up(path);
  }
  fchmod(fd, node.mode & 07777);
  close(fd);
}

} // namespace

// ---- A tree ------------------------------------------------------------------------------------

int disk_tree::find(const std::string &path) const {
  int at = root;
  std::istringstream parts(path);
  for (std::string part; at != 0 && std::getline(parts, part, '/');) {
    const auto &entries = nodes_[static_cast<size_t>(at)].entries;
    const auto found = entries.find(part);
    at = found == entries.end() ? 0 : found->second;
  }
  return at;
}

int disk_tree::add(unsigned mode) {
  nodes_.emplace_back();
  nodes_.back().mode = mode;
  return static_cast<int>(nodes_.size() - 1);
}

disk_tree disk_tree::read(const std::string &folder) {
  disk_tree tree;
  tree.nodes_[root].mode = S_IFDIR | 0755;
  if (fs::is_directory(folder)) {
    tree.read_folder(folder, root);
  }
  return tree;
}

void disk_tree::read_folder(const std::string &folder, int number) {
  for (const fs::directory_entry &entry : fs::directory_iterator(folder)) {
    const std::string path = entry.path();
    struct stat about = {};
    if (lstat(path.c_str(), &about) != 0) {
      give_up(path);
    }
    const int made = add(about.st_mode);
    nodes_[static_cast<size_t>(number)].entries[entry.path().filename()] = made;
    if (S_ISDIR(about.st_mode)) {
      read_folder(path, made);
    } else if (S_ISLNK(about.st_mode)) {
      nodes_.back().content = fs::read_symlink(path).string();
    } else if (S_ISREG(about.st_mode)) {
      std::ifstream file(path, std::ios::binary);
      nodes_.back().content.resize(static_cast<size_t>(about.st_size));
      file.read(nodes_.back().content.data(), about.st_size);
    }
  }
}

void disk_tree::write(const std::string &folder) const {
  if (mkdir(folder.c_str(), 0755) != 0) {
    give_up(folder);
  }
  write_folder(folder, root);
}

void disk_tree::write_folder(const std::string &folder, int number) const {
  for (const auto &[name, target] : nodes_[static_cast<size_t>(number)].entries) {
    const disk_node &node = nodes_[static_cast<size_t>(target)];
    const std::string path = folder + "/" + name;
    if (S_ISDIR(node.mode)) {
      if (mkdir(path.c_str(), 0755) != 0) {
        give_up(path);
      }
      write_folder(path, target);
      chmod(path.c_str(), node.mode & 07777);
    } else if (S_ISLNK(node.mode)) {
      fs::create_symlink(node.content, path);
    } else if (S_ISREG(node.mode)) {
      write_file(path, node);
    } else if (mknod(path.c_str(), node.mode, 0) != 0) {
      give_up(path);
    }
  }
}

std::string disk_tree::content(const std::string &path) const {
  return nodes_[static_cast<size_t>(find(path))].content;
}

void disk_tree::list(const std::string &path, int number,
                     std::map<std::string, std::string> *into) const {
  for (const auto &[name, target] : nodes_[static_cast<size_t>(number)].entries) {
    const disk_node &node = nodes_[static_cast<size_t>(target)];
    const std::string below = path.empty() ? name : path + "/" + name;
    (*into)[below] = std::to_string(node.mode) + ":" + node.content;
    list(below, target, into);
  }
}

std::map<std::string, std::string> disk_tree::listing(const std::string &path) const {
  std::map<std::string, std::string> all;
  list("", find(path), &all);
  return all;
}

std::string disk_tree::digest(const std::string &path) const {
  XXH3_state_t *const state = XXH3_createState();
  XXH3_128bits_reset(state);
  const auto add_text = [&](const std::string &text) {
    const uint64_t size = text.size();
    XXH3_128bits_update(state, &size, sizeof size);
    XXH3_128bits_update(state, text.data(), text.size());
  };
  for (const auto &[name, text] : listing(path)) {
    add_text(name);
    add_text(text);
  }
  const XXH128_hash_t sum = XXH3_128bits_digest(state);
  XXH3_freeState(state);
  char text[40];
  std::snprintf(text, sizeof text, "%016llx%016llx", static_cast<unsigned long long>(sum.high64),
                static_cast<unsigned long long>(sum.low64));
  return text;
}

// ---- What happens to it ------------------------------------------------------------------------

disk_record::disk_record(disk_tree before) : before_(std::move(before)), now_(before_) {}

disk_record::place disk_record::find(const std::string &path) const {
  place found;
  const size_t slash = path.rfind('/');
  found.folder = slash == std::string::npos ? root : now_.find(path.substr(0, slash));
  found.name = slash == std::string::npos ? path : path.substr(slash + 1);
  found.node = path.empty() ? root : now_.find(path);
  return found;
}

void disk_record::add(operation one) {
  if (apply(one, false, &now_)) {
    waiting_.push_back(operations_.size());
    operations_.push_back(std::move(one));
  }
}

void disk_record::change_entries(std::vector<entry_change> entries) {
  operation one = {};
  one.kind = operation::kind_t::entries;
  for (const entry_change &entry : entries) {
    if (entry.folder == 0) {
      return; // no such folder: the call fails
    }
    one.waits_for.push_back(entry.folder);
  }
  one.entries = std::move(entries);
  add(std::move(one));
}

void disk_record::change_node(operation::kind_t kind, int node, uint64_t at, std::string bytes,
                              unsigned mode) {
  if (node == 0) {
    return;
  }
  operation one = {};
  one.kind = kind;
  one.node = node;
  one.at = at;
  one.bytes = std::move(bytes);
  one.mode = mode;
  one.waits_for = {node};
  add(std::move(one));
}

void disk_record::take_make(const file_call &call, unsigned type) {
  const place where = find(call.path);
  if (where.node != 0 || where.folder == 0) {
    return;
  }
  const int made = now_.add(type);
  now_.nodes_[static_cast<size_t>(made)].content = S_ISLNK(type) ? call.other : "";
  before_.nodes_.resize(now_.nodes_.size());
  before_.nodes_.back() = now_.nodes_.back();
  change_entries({{where.folder, where.name, 0, made}});
}

void disk_record::take_open(const file_call &call) {
  const place where = find(call.path);
  if (where.node == 0 && (call.flags & O_CREAT) != 0) {
    take_make(call, S_IFREG | (call.mode & 07777 & ~022U));
  } else if (where.node != 0 && (call.flags & O_TRUNC) != 0 && (call.flags & O_EXCL) == 0 &&
             !now_.nodes_[static_cast<size_t>(where.node)].content.empty()) {
    change_node(operation::kind_t::size, where.node, 0, "", 0);
  }
}

void disk_record::take_move(const file_call &call) {
  const place from = find(call.path);
  const place to = find(call.other);
  constexpr unsigned no_replace = 1;
  if (from.node == 0) {
    return;
  }
  if (call.kind == call_kind::exchange) {
    if (to.node != 0) {
      change_entries(
          {{from.folder, from.name, from.node, to.node}, {to.folder, to.name, to.node, from.node}});
    }
    return;
  }
  const disk_node &target = now_.nodes_[static_cast<size_t>(to.node)];
  const bool in_the_way =
      to.node != 0 && (!target.entries.empty() || (call.flags & no_replace) != 0);
  if (!in_the_way) {
    change_entries(
        {{from.folder, from.name, from.node, 0}, {to.folder, to.name, to.node, from.node}});
  }
}

void disk_record::take_remove(const file_call &call, bool folder) {
  const place where = find(call.path);
  const disk_node &node = now_.nodes_[static_cast<size_t>(where.node)];
  if (where.node != 0 && S_ISDIR(node.mode) == folder && node.entries.empty()) {
    change_entries({{where.folder, where.name, where.node, 0}});
  }
}

void disk_record::take(const file_call &call) {
  constexpr unsigned exchange_or_less = 3;
  const int node = now_.find(call.path);
  const auto end = now_.nodes_[static_cast<size_t>(node)].content.size();
  switch (call.kind) {
  case call_kind::open:
    take_open(call);
    break;
  case call_kind::write:
    change_node(operation::kind_t::bytes, node, (call.flags & O_APPEND) != 0 ? end : call.at,
                call.data, 0);
    break;
  case call_kind::resize:
    change_node(operation::kind_t::size, node, call.size, "", 0);
    break;
  case call_kind::make_folder:
    take_make(call, S_IFDIR | (call.mode & 07777 & ~022U));
    break;
  case call_kind::make_link:
    take_make(call, S_IFLNK | 0777);
    break;
  case call_kind::make_node:
    take_make(call, (call.mode & S_IFMT) == 0 ? S_IFREG | (call.mode & 0755) : call.mode);
    break;
  case call_kind::move:
  case call_kind::exchange:
    if (call.flags > exchange_or_less) {
      strange_.push_back("a rename with flags " + std::to_string(call.flags));
    }
    take_move(call);
    break;
  case call_kind::remove:
  case call_kind::remove_folder:
    take_remove(call, call.kind == call_kind::remove_folder);
    break;
  case call_kind::set_mode:
    if (node != 0) {
      const unsigned type = now_.nodes_[static_cast<size_t>(node)].mode & S_IFMT;
      change_node(operation::kind_t::mode, node, 0, "", type | (call.mode & 07777));
    }
    break;
  case call_kind::sync:
  case call_kind::sync_data:
    if (node != 0) {
      synced(node, call.kind == call_kind::sync_data);
    }
    break;
  case call_kind::sync_all:
    synced(0, false);
    break;
  case call_kind::read_folder:
  case call_kind::read:
  case call_kind::list:
  case call_kind::examine:
  case call_kind::platform:
    return;
  case call_kind::give_name:
  case call_kind::unknown:
    strange_.push_back(std::string(name_of(call.kind)) + " by system call " +
                       std::to_string(call.number) + " at '" + call.path + "'");
    break;
  }
  ends_.push_back(operations_.size());
}

// A node's, or, of none, everything. The call that is being noted is the one that syncs.
void disk_record::synced(int node, bool contents_only) {
  const size_t call = ends_.size() + 1;
  std::erase_if(waiting_, [&](size_t number) {
    operation &one = operations_[number];
    if (contents_only && one.kind == operation::kind_t::mode) {
      return false;
    }
    if (node == 0) {
      one.waits_for.clear();
    } else {
      std::erase(one.waits_for, node);
    }
    if (one.waits_for.empty()) {
      one.synced_at = call;
    }
    return one.waits_for.empty();
  });
}

// False when it cannot be done, because what it builds on is not there.
bool disk_record::apply(const operation &one, bool on_disk, disk_tree *tree) {
  disk_node &node = tree->nodes_[static_cast<size_t>(one.node)];
  switch (one.kind) {
  case operation::kind_t::bytes:
    put(&node.content, one.at, one.bytes);
    return true;
  case operation::kind_t::size:
    node.content.resize(one.at);
    return true;
  case operation::kind_t::mode:
    node.mode = one.mode;
    return true;
  case operation::kind_t::entries:
    break;
  }
  for (const entry_change &entry : one.entries) {
    const auto &entries = tree->nodes_[static_cast<size_t>(entry.folder)].entries;
    const auto found = entries.find(entry.name);
    if ((found == entries.end() ? 0 : found->second) != entry.was) {
      return false;
    }
    // A folder that loses its name is empty; when that is on disk, so is what it held before.
    const bool keeps_one = std::any_of(one.entries.begin(), one.entries.end(),
                                       [&](const entry_change &at) { return at.is == entry.was; });
    if (!keeps_one && !on_disk && !tree->nodes_[static_cast<size_t>(entry.was)].entries.empty()) {
      return false;
    }
  }
  for (const entry_change &entry : one.entries) {
    auto &entries = tree->nodes_[static_cast<size_t>(entry.folder)].entries;
    entries.erase(entry.name);
    if (entry.is != 0) {
      entries[entry.name] = entry.is;
    }
  }
  return true;
}

void disk_record::apply_torn(const operation &one, disk_tree *tree, std::mt19937_64 *random) {
  if (one.kind != operation::kind_t::bytes) {
    apply(one, false, tree);
    return;
  }
  const uint64_t end = one.at + one.bytes.size();
  operation piece = one;
  for (uint64_t at = one.at; at < end;) {
    const uint64_t next = std::min(end, (at / sector + 1) * sector);
    if (((*random)() & 1) != 0) {
      piece.at = at;
      piece.bytes = one.bytes.substr(at - one.at, next - at);
      apply(piece, false, tree);
    }
    at = next;
  }
}

disk_tree disk_record::after_power_loss(size_t calls, survival how, std::mt19937_64 *random) const {
  disk_tree tree = before_;
  const size_t end = calls == 0 ? 0 : ends_[calls - 1];
  for (size_t at = 0; at < end; ++at) {
    const operation &one = operations_[at];
    const bool names = one.kind == operation::kind_t::entries;
    const bool on_disk = one.synced_at <= calls;
    if (on_disk || how == survival::everything || (how == survival::names && names) ||
        (how == survival::contents && !names)) {
      apply(one, on_disk, &tree);
    } else if (how == survival::some) {
      switch ((*random)() % 3) {
      case 0:
        break;
      case 1:
        apply(one, false, &tree);
        break;
      default:
        apply_torn(one, &tree, random);
      }
    }
  }
  return tree;
}
