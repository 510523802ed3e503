// The process takes a mount name space of its own and mounts a small tmpfs over /dev/shm, so that
// what a damaged file makes the library write is bounded, and goes away with the process. Where
// that is not allowed, the folder lies in the /dev/shm of all: one process at a time then, each
// file bounded by the process's limit.

#include "fuzz/world.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "fuzz/found.h"
#include "storage/table_file/table_file.h"

namespace zelta::fuzz {

namespace fs = std::filesystem;

namespace {

constexpr const char* kShared = "/dev/shm";
const std::string kRoot = "/dev/shm/zelta-fuzz";
const std::string kRun = kRoot + "/run";
const std::string kStranger = kRoot + "/s";
constexpr const char* kBound = "size=48m,nr_inodes=4096,mode=0755";
constexpr rlim_t kFileBound = 32 << 20;
/// No input writes so much by itself, but for the slots of a table file.
constexpr std::uintmax_t kLargestFile = 16 << 20;

/// What the slots of a table file take, or will when the commit under way is finished: a single
/// object with a large ID, which a log or a memory file may well bring, makes a slot for every ID
/// below, and the disk may be full before all of them are written.
std::uintmax_t slotBytes(const fs::path& path) {
  TableHeader_tag header{};
  ObjectSlot last{};
  std::ifstream file(path, std::ios::binary);
  if (path.extension() != ".zlt" || !file.read(reinterpret_cast<char*>(&header), sizeof header)) {
    return 0;
  }
  if (header.commitEnd != 0) return header.newObjectAreaStart;
  const std::uintmax_t end = header.slotBase + (header.highestID + 1) * kObjectSlotSize;
  if (header.highestID >= fs::file_size(path) || end > header.objectAreaStart) return 0;
  file.seekg(static_cast<std::streamoff>(end - kObjectSlotSize));
  file.read(reinterpret_cast<char*>(&last), kObjectSlotSize);
  const bool used = file && !last.isFree() && last.position != 0;
  return used ? end : 0;
}

void put(const std::string& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
}

std::string bytesOf(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

/// By which user and group this process's are to be known in a name space of its own.
void mapUser(const char* file, unsigned id) {
  put(file, std::to_string(id) + " " + std::to_string(id) + " 1");
}

bool takeNameSpace() {
  if (unshare(CLONE_NEWNS) == 0) return true;
  const unsigned user = getuid();
  const unsigned group = getgid();
  if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0) return false;
  put("/proc/self/setgroups", "deny");
  mapUser("/proc/self/uid_map", user);
  mapUser("/proc/self/gid_map", group);
  return true;
}

bool mountPrivate() {
  return takeNameSpace() && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
         mount("none", kShared, "tmpfs", MS_NOSUID | MS_NODEV, kBound) == 0;
}

void boundFiles() {
  const int lock = open((kRoot + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
  if (lock < 0 || flock(lock, LOCK_EX) != 0) found("no folder for the files");
  signal(SIGXFSZ, SIG_IGN);
  const rlimit limit{kFileBound, kFileBound};
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) found("no bound for the files");
}

/// What lies in the stranger's folder: files with the names of the database's and its tables', in
/// part with the right magic. An index file with the right magic is the table's own if the
/// directory of the database says that index files lie there; so these have none.
std::map<std::string, std::string> strangersFiles() {
  const std::string tail = " belongs to somebody else, and is to stay as it is\n";
  std::map<std::string, std::string> out{{"notes.txt", "notes" + tail}};
  for (const std::string name : {"a", "b", "c", "db", "t"}) {
    out[name + ".zlt"] = std::string("ZELT\1\0\4\0", 8) + tail;
    out[name + ".zlm"] = std::string("ZELM\1\0\1\0", 8) + tail;
    out[name + ".zli"] = "index" + tail;
  }
  out["db.zlc"] = std::string("ZELC\1\0\2\0", 8) + tail;
  out["db.zll"] = std::string("ZELL\1\0\0\0", 8) + tail;
  out["db.0000.zll"] = std::string("ZELO\1\0\0\0", 8) + tail;
  return out;
}

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// Whether the path leads into the folder of the run, or into the folder of index files in it.
bool isInside(const std::string& path) {
  if (path.compare(0, kRun.size() + 1, kRun + "/") != 0) return false;
  return path.find("/../") == std::string::npos;
}

}  // namespace

World& World::get() {
  static World world;
  return world;
}

World::World() {
  private_ = mountPrivate();
  if (!private_) boundFiles();
  fs::remove_all(kRoot);
  fs::create_directories(kRun);
  fs::create_directories(kStranger);
  for (const auto& [name, bytes] : strangersFiles()) put(kStranger + "/" + name, bytes);
  platform::faults::install(this);
}

std::u16string World::path(const std::string& name) {
  return fs::path(kRun + "/" + name).u16string();
}
const std::string& World::folder() { return kRun; }

/// The directory of the control file may name any folder for index files. For all else that lies
/// elsewhere the answer is no, lest a fault that is found does harm, and it is a finding.
platform::faults::Verdict World::before(const platform::faults::Event& event) {
  using platform::faults::Call;
  if (event.call == Call::mutexCreate || event.call == Call::mutexWait ||
      event.call == Call::mutexRelease || isInside(event.name)) {
    return {};
  }
  const bool changes = event.call == Call::write || event.call == Call::truncate ||
                       event.call == Call::remove || event.call == Call::rename ||
                       event.call == Call::open;
  if (changes && !endsWith(event.name, ".zli")) found("a file elsewhere is used: " + event.name);
  const bool inReach = event.name.compare(0, kRoot.size() + 1, kRoot + "/") == 0;
  platform::faults::Verdict verdict;
  if (!inReach) verdict.code = code::kAccessDenied;
  return verdict;
}

void World::lay(const Archive& archive) {
  fs::remove_all(kRun);
  sweepMutexes();
  fs::create_directories(kRun + "/i");
  for (const ArchivedFile& file : archive.files) {
    put(kRun + "/" + kFileNames[file.name], file.bytes);
  }
}

/// What processes that were killed have left.
void World::sweepMutexes() const {
  if (!private_) return;
  for (const auto& entry : fs::directory_iterator(kShared)) {
    if (entry.path() != kRoot) fs::remove_all(entry.path());
  }
}

std::map<std::string, std::string> World::files() const {
  std::map<std::string, std::string> out;
  for (const auto& entry : fs::recursive_directory_iterator(kRun)) {
    if (entry.is_regular_file()) {
      out[fs::relative(entry.path(), kRun).string()] = bytesOf(entry.path());
    }
  }
  return out;
}

void World::check() const {
  checkStranger();
  checkGrowth();
  checkMutexes();
}

/// Index files may have been made there, if the directory of the control file says so.
void World::checkStranger() const {
  static const std::map<std::string, std::string> expected = strangersFiles();
  std::size_t seen = 0;
  for (const auto& entry : fs::directory_iterator(kStranger)) {
    const std::string name = entry.path().filename().string();
    const auto known = expected.find(name);
    if (known != expected.end()) {
      if (bytesOf(entry.path()) != known->second) found("a stranger's file is changed: " + name);
      ++seen;
      continue;
    }
    if (!endsWith(name, ".zli")) found("a file was made in a stranger's folder: " + name);
    fs::remove(entry.path());
  }
  expect(seen == expected.size(), "a stranger's file is gone");
}

void World::checkGrowth() const {
  for (const auto& entry : fs::recursive_directory_iterator(kRoot)) {
    if (entry.is_regular_file() && entry.file_size() > kLargestFile + slotBytes(entry.path())) {
      found("a file has grown without measure: " + entry.path().string());
    }
  }
}

void World::checkMutexes() const {
  for (const auto& entry : fs::recursive_directory_iterator(kRun)) {
    if (endsWith(entry.path().string(), ".zlk")) found("a mutex's file is left");
  }
  if (!private_) return;
  for (const auto& entry : fs::directory_iterator(kShared)) {
    if (entry.path() != kRoot) found("a mutex's file is left: " + entry.path().string());
  }
}

}  // namespace zelta::fuzz
