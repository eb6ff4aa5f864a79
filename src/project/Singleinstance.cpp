// Single-instance guard: lock file plus local socket.
#include "project/Singleinstance.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr char kRequestWord[] = "COME_FORWARD";
constexpr char kRequest[] = "COME_FORWARD\n";
constexpr char kAnswer[] = "OK\n";

bool MakeAddress(const std::string& name, sockaddr_un& address) {
  std::memset(&address, 0, sizeof address);
  address.sun_family = AF_UNIX;
  if (name.size() >= sizeof address.sun_path) return false;
  std::memcpy(address.sun_path, name.c_str(), name.size() + 1);
  return true;
}

// Reads until a newline, the buffer is full or the time is up.
std::string ReadLine(int socket, int timeoutMs) {
  std::string line;
  char buffer[64];
  while (line.find('\n') == std::string::npos && line.size() < 8192) { // room for a path
    pollfd entry{socket, POLLIN, 0};
    if (::poll(&entry, 1, timeoutMs) <= 0) break;
    const ssize_t count = ::read(socket, buffer, sizeof buffer);
    if (count <= 0) break;
    line.append(buffer, size_t(count));
  }
  return line;
}

void WriteAll(int socket, const char* text) {
  size_t length = std::strlen(text);
  while (length > 0) {
    const ssize_t written = ::send(socket, text, length, MSG_NOSIGNAL);
    if (written <= 0) return;
    text += written;
    length -= size_t(written);
  }
}

} // namespace

TSingleInstanceGuard::TSingleInstanceGuard(std::string folder, std::string name) {
  if (!folder.empty() && folder.back() != '/') folder += '/';
  FLockFileName = folder + name + ".lock";
  FSocketName = folder + name + ".socket";
}

TSingleInstanceGuard::~TSingleInstanceGuard() {
  Release();
}

TSingleInstanceGuard::TResult TSingleInstanceGuard::Acquire(std::function<void()> onBringForward) {
  if (!onBringForward) return Acquire(std::function<void(const std::string&)>(), std::string());
  return Acquire([fn = std::move(onBringForward)](const std::string&) { fn(); }, std::string());
}

TSingleInstanceGuard::TResult
TSingleInstanceGuard::Acquire(std::function<void(const std::string& fileName)> onBringForward,
                              const std::string& fileName) {
  if (IsHolder()) return TResult::First;
  const int file = ::open(FLockFileName.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (file < 0) return TResult::NoGuard;
  if (::flock(file, LOCK_EX | LOCK_NB) != 0) {
    ::close(file);
    return AskHolderToComeForward(fileName) ? TResult::OtherBroughtForward : TResult::OtherNotReached;
  }
  FLockFile = file;
  FOnBringForward = std::move(onBringForward);
  // Without the socket the guard still holds; a later start then reports that it found no window.
  StartListening();
  return TResult::First;
}

bool TSingleInstanceGuard::AskHolderToComeForward(const std::string& fileName) const {
  sockaddr_un address;
  if (!MakeAddress(FSocketName, address)) return false;
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (socket < 0) return false;
  bool confirmed = false;
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
    // The request, with the file in the same line: "COME_FORWARD /abs/path\n". A name holding a line break
    // can't travel and is left out.
    std::string request = kRequest;
    if (!fileName.empty() && fileName.find('\n') == std::string::npos) {
      std::error_code error;
      const std::string absolute = std::filesystem::absolute(fileName, error).string();
      request = std::string(kRequestWord) + " " + (error ? fileName : absolute) + "\n";
    }
    WriteAll(socket, request.c_str());
    confirmed = ReadLine(socket, kAnswerTimeoutMs) == kAnswer;
  }
  ::close(socket);
  return confirmed;
}

bool TSingleInstanceGuard::StartListening() {
  sockaddr_un address;
  if (!MakeAddress(FSocketName, address)) return false;
  // A socket file left by a holder that died is stale: the lock proves that nobody listens on it.
  ::unlink(FSocketName.c_str());
  FListenSocket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (FListenSocket < 0) return false;
  if (::bind(FListenSocket, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
      ::listen(FListenSocket, 4) != 0 || ::pipe2(FWakePipe, O_CLOEXEC) != 0) {
    ::close(FListenSocket);
    FListenSocket = -1;
    return false;
  }
  FListener = std::thread([this] { Listen(); });
  return true;
}

void TSingleInstanceGuard::Listen() {
  for (;;) {
    pollfd entries[2] = {{FListenSocket, POLLIN, 0}, {FWakePipe[0], POLLIN, 0}};
    if (::poll(entries, 2, -1) < 0) {
      if (errno == EINTR) continue;
      return;
    }
    if (entries[1].revents != 0) return;
    if ((entries[0].revents & POLLIN) == 0) continue;
    const int client = ::accept4(FListenSocket, nullptr, nullptr, SOCK_CLOEXEC);
    if (client < 0) continue;
    const std::string line = ReadLine(client, kAnswerTimeoutMs);
    const size_t word = std::strlen(kRequestWord);
    if (line.size() > word && line.compare(0, word, kRequestWord) == 0 && line.back() == '\n' &&
        (line[word] == '\n' || line[word] == ' ')) {
      const std::string fileName = line[word] == ' ' ? line.substr(word + 1, line.size() - word - 2) : "";
      if (FOnBringForward) FOnBringForward(fileName);
      WriteAll(client, kAnswer);
    }
    ::close(client);
  }
}

void TSingleInstanceGuard::Release() {
  if (FListener.joinable()) {
    const char stop = 1;
    [[maybe_unused]] const ssize_t written = ::write(FWakePipe[1], &stop, 1);
    FListener.join();
  }
  for (int* fd : {&FListenSocket, &FWakePipe[0], &FWakePipe[1]})
    if (*fd >= 0) {
      ::close(*fd);
      *fd = -1;
    }
  if (FLockFile >= 0) {
    ::unlink(FSocketName.c_str());
    // The lock file stays: removing it would let a third start lock a new file while a second one still
    // holds the old one open.
    ::flock(FLockFile, LOCK_UN);
    ::close(FLockFile);
    FLockFile = -1;
  }
}
