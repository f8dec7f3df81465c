// probe_only.cpp - accept one TCP connection, then refuse all others.
#include "tqdedupd/probe_only.h"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace tqdedupd {

namespace {

// Opens a listening socket on host:port; returns it, or -1 with *error.
int Listen(const std::string& host, int port, std::string* error) {
  addrinfo hints;
  memset(&hints, 0, sizeof hints);
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV;
  addrinfo* list = nullptr;
  std::string service = std::to_string(port);
  int rc = getaddrinfo(host.c_str(), service.c_str(), &hints, &list);
  if (rc != 0) {
    *error = "cannot resolve " + host + ": " + gai_strerror(rc);
    return -1;
  }
  int fd = -1;
  for (addrinfo* ai = list; ai; ai = ai->ai_next) {
    fd = socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
    if (fd < 0) continue;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    // Backlog 0 lets one connection wait for accept().  While the probe
    // waits there, a second connection attempt finds the queue full and is
    // not answered; its retry then meets the closed socket and is refused,
    // instead of being accepted by the kernel and reset later.
    if (bind(fd, ai->ai_addr, ai->ai_addrlen) == 0 && listen(fd, 0) == 0) break;
    *error = "cannot listen on " + host + ":" + service + ": " + strerror(errno);
    close(fd);
    fd = -1;
  }
  freeaddrinfo(list);
  return fd;
}

int BoundPort(int fd) {
  sockaddr_storage addr;
  socklen_t len = sizeof addr;
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) return -1;
  if (addr.ss_family == AF_INET) return ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
  if (addr.ss_family == AF_INET6) return ntohs(reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port);
  return -1;
}

// Waits until fd is readable or a stop signal arrived; true for fd.
bool WaitReadable(int fd, int stopFd) {
  for (;;) {
    pollfd fds[2] = {{stopFd, POLLIN, 0}, {fd, POLLIN, 0}};
    int n = poll(fds, fd >= 0 ? 2 : 1, -1);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 || fds[0].revents) return false;
    if (fds[1].revents) return true;
  }
}

}  // namespace

int RunProbeOnly(const Options& options, RequestLog& log, StopSignal& stop, const std::function<void(int)>& announce) {
  std::string error;
  int listener = Listen(options.host, options.port, &error);
  if (listener < 0) {
    log.Line(error);
    return 1;
  }
  announce(BoundPort(listener));
  if (WaitReadable(listener, stop.ReadyFd())) {
    int conn = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    // Stop listening before anything else so that the next connect fails.
    close(listener);
    listener = -1;
    if (conn >= 0) {
      close(conn);
      log.Line("probe connection accepted and closed; no longer listening");
    } else {
      log.Printf("accept failed: %s; no longer listening", strerror(errno));
    }
    WaitReadable(-1, stop.ReadyFd());
  }
  if (listener >= 0) close(listener);
  log.Line("stopped");
  return 0;
}

}  // namespace tqdedupd
