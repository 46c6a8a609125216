#include "switch/sim/input.h"

#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/activity/descriptor.h"

namespace ryx::sim {
namespace {

// The most bytes that one callback of the loop reads.
constexpr size_t kChunk = 16384;

class File {
 public:
  explicit File(int fd) : fd_(fd) {}
  ~File() {
    if (fd_ >= 0) close(fd_);
  }
  File(const File&) = delete;
  int fd() const { return fd_; }

 private:
  int fd_;
};

std::string systemError(const std::string& what) {
  return what + ": " + std::strerror(errno);
}

// Readable while there may be more to read. For a regular file `endKnown` turns that off at its
// end, and the watch on it, on again.
class Source final : public Input, private File, private platform::Descriptor {
 public:
  Source(Sim& sim, const std::string& path, int fd, bool regular)
      : File(fd), Descriptor(fd, "sim input"), reader_(sim, path), regular_(regular) {
    readableInterestIs(true);
  }
  ~Source() override { readableInterestIs(false); }

  uint64_t refusedLines() const override { return reader_.refusedLines(); }

  std::string watch(const std::string& path) {
    int fd = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (fd < 0) return systemError("inotify");
    watch_ = std::make_unique<Watch>(*this, fd);
    if (inotify_add_watch(fd, path.c_str(), IN_MODIFY) < 0) return systemError("inotify");
    return {};
  }

 protected:
  void onReadable() override {
    char bytes[kChunk];
    ssize_t n = read(File::fd(), bytes, sizeof bytes);
    if (n > 0) {
      offset_ += n;
      reader_.take({bytes, static_cast<size_t>(n)});
    } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      return;
    } else if (n == 0 && regular_) {
      atEnd();
    } else {
      if (n < 0) std::fprintf(stderr, "RYX_SIM_INPUT: %s\n", systemError("read").c_str());
      reader_.finish();
      readableInterestIs(false);
    }
  }

 private:
  class Watch final : private File, private platform::Descriptor {
   public:
    Watch(Source& source, int fd) : File(fd), Descriptor(fd, "sim input"), source_(source) {
      readableInterestIs(true);
    }
    ~Watch() override { readableInterestIs(false); }

   protected:
    void onReadable() override {
      char events[kChunk];
      while (read(File::fd(), events, sizeof events) > 0) {
      }
      source_.readableInterestIs(true);
    }

   private:
    Source& source_;
  };

  void atEnd() {
    struct stat status;
    if (fstat(File::fd(), &status) == 0 && status.st_size < offset_ &&
        lseek(File::fd(), 0, SEEK_SET) == 0) {
      offset_ = 0;
      reader_.restart();
      return;
    }
    readableInterestIs(false);
  }

  LineReader reader_;
  const bool regular_;
  off_t offset_ = 0;
  std::unique_ptr<Watch> watch_;
};

}  // namespace

// --- LineReader ---------------------------------------------------------------------------------

void LineReader::take(std::string_view bytes) {
  while (!bytes.empty()) {
    size_t end = bytes.find('\n');
    std::string_view piece = bytes.substr(0, end);
    if (line_.size() + piece.size() > kMaxLine) tooLong_ = true;
    if (!tooLong_) line_ += piece;
    if (end == std::string_view::npos) return;
    endLine();
    bytes.remove_prefix(end + 1);
  }
}

void LineReader::finish() {
  if (!line_.empty() || tooLong_) endLine();
}

void LineReader::restart() {
  line_.clear();
  tooLong_ = false;
  number_ = 1;
}

void LineReader::endLine() {
  std::string line = std::exchange(line_, {});
  bool tooLong = std::exchange(tooLong_, false);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  std::string error = tooLong ? "expected a line of at most " + std::to_string(kMaxLine) + " bytes"
                              : sim_.command(line);
  if (!error.empty()) tell(error);
  ++number_;
}

void LineReader::tell(const std::string& what) {
  ++refused_;
  std::fprintf(stderr, "%s:%llu: %s\n", name_.c_str(), static_cast<unsigned long long>(number_),
               what.c_str());
}

// --- sources ------------------------------------------------------------------------------------

std::string runScenario(Sim& sim, const std::string& path) {
  File file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (file.fd() < 0) return systemError("scenario \"" + path + "\"");
  LineReader reader(sim, path);
  char bytes[kChunk];
  for (;;) {
    ssize_t n = read(file.fd(), bytes, sizeof bytes);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return systemError("scenario \"" + path + "\"");
    if (n == 0) break;
    reader.take({bytes, static_cast<size_t>(n)});
  }
  reader.finish();
  return {};
}

std::unique_ptr<Input> Input::follow(Sim& sim, const std::string& path, std::string* error) {
  std::string what = "RYX_SIM_INPUT=" + path;
  struct stat status;
  if (stat(path.c_str(), &status) != 0) {
    *error = systemError(what) + "; expected a FIFO or a file";
    return nullptr;
  }
  if (S_ISDIR(status.st_mode)) {
    *error = what + " is a directory; expected a FIFO or a file";
    return nullptr;
  }
  // A FIFO that this process could write, too, has no end when its writers go.
  bool fifo = S_ISFIFO(status.st_mode);
  int fd = open(path.c_str(), (fifo ? O_RDWR : O_RDONLY) | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    *error = systemError(what);
    return nullptr;
  }
  bool regular = S_ISREG(status.st_mode);
  auto source = std::make_unique<Source>(sim, path, fd, regular);
  if (regular) *error = source->watch(path);
  if (error->empty()) return source;
  *error = what + ": " + *error;
  return nullptr;
}

}  // namespace ryx::sim
