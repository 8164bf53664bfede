// What one hop of the library's plain chain costs the client on loopback, counted rather
// than timed: allocations (every malloc, calloc, realloc and aligned allocation of the
// process, operator new included), and, when run under callgrind with --instr-atstart=no,
// the userland instructions of every thread of the process.
//
//   zavlo-hop-cost [--hops N] [--chains N] [--warm-up N]
//
// The chain server runs in a child process of its own (this program started again with
// --serve), so nothing it does is counted; valgrind does not follow it. Warm-up chains run
// first and are not counted either: the platform's start, the first interface list, the
// first allocations of every pool. Prints one JSON object: hops, chains, allocations and
// allocations_per_hop; callgrind's totals are read by scripts/bench.

#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>

#include "ZavloLibraryChain.hpp"
#include "tools/peers/ZavloChainServer.hpp"

// --- Allocation counting: glibc's own allocator does the work.

namespace {
std::atomic<std::uint64_t> gAllocations{0};
void counted() { gAllocations.fetch_add(1, std::memory_order_relaxed); }
}  // namespace

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier)
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* pointer, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
// NOLINTEND(bugprone-reserved-identifier)

void* malloc(std::size_t size) noexcept {
  counted();
  return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) noexcept {
  counted();
  return __libc_calloc(count, size);
}
void* realloc(void* pointer, std::size_t size) noexcept {
  counted();
  return __libc_realloc(pointer, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) noexcept {
  counted();
  return __libc_memalign(alignment, size);
}
void* memalign(std::size_t alignment, std::size_t size) noexcept {
  counted();
  return __libc_memalign(alignment, size);
}
int posix_memalign(void** pointer, std::size_t alignment, std::size_t size) noexcept {
  counted();
  *pointer = __libc_memalign(alignment, size);
  return *pointer != nullptr ? 0 : ENOMEM;
}
}

namespace {

unsigned option(int argc, char** argv, const char* name, unsigned otherwise) {
  for (int i = 1; i + 1 < argc; ++i) {
    if (std::strcmp(argv[i], name) == 0) return static_cast<unsigned>(std::strtoul(argv[i + 1], nullptr, 10));
  }
  return otherwise;
}

// The child: serves chains until its parent closes its standard input (or dies).
int serve(unsigned hops) {
  ZavloChainServer server;
  std::cout << server.chainUrl(hops) << '\n' << server.token() << std::endl;
  char byte = 0;
  while (::read(STDIN_FILENO, &byte, 1) > 0) {
  }
  return 0;
}

struct Server {
  pid_t pid = -1;
  int input = -1;  // closing it ends the server
  std::string url;
  std::string token;
};

std::string readLine(int fd) {
  std::string line;
  char byte = 0;
  while (::read(fd, &byte, 1) == 1 && byte != '\n') line += byte;
  return line;
}

Server startServer(unsigned hops) {
  char self[4096] = {};
  if (::readlink("/proc/self/exe", self, sizeof self - 1) <= 0) throw std::runtime_error("no /proc/self/exe");
  int toChild[2];
  int fromChild[2];
  if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0) throw std::runtime_error("pipe failed");
  Server server;
  server.pid = ::fork();
  if (server.pid < 0) throw std::runtime_error("fork failed");
  if (server.pid == 0) {
    ::dup2(toChild[0], STDIN_FILENO);
    ::dup2(fromChild[1], STDOUT_FILENO);
    ::close(toChild[1]);
    ::close(fromChild[0]);
    const auto hopsText = std::to_string(hops);
    ::execl(self, self, "--serve", hopsText.c_str(), static_cast<char*>(nullptr));
    ::_exit(127);
  }
  ::close(toChild[0]);
  ::close(fromChild[1]);
  server.input = toChild[1];
  server.url = readLine(fromChild[0]);
  server.token = readLine(fromChild[0]);
  ::close(fromChild[0]);
  if (server.url.empty()) throw std::runtime_error("the chain server did not start");
  return server;
}

void stopServer(Server& server) {
  ::close(server.input);
  int status = 0;
  ::waitpid(server.pid, &status, 0);
}

}  // namespace

int main(int argc, char** argv) {
  const unsigned hops = option(argc, argv, "--hops", 5);
  if (argc >= 3 && std::strcmp(argv[1], "--serve") == 0) return serve(option(argc, argv, "--serve", hops));
  const unsigned chains = option(argc, argv, "--chains", 200);
  const unsigned warmUp = option(argc, argv, "--warm-up", 20);
  try {
    auto server = startServer(hops);
    const auto runner = zavloMakeLibraryChainRunner({"", "lo", server.token});
    for (unsigned i = 0; i < warmUp; ++i) {
      if (!runner(server.url)) throw std::runtime_error("a warm-up chain failed");
    }
    unsigned failed = 0;
    const auto before = gAllocations.load();
    CALLGRIND_START_INSTRUMENTATION;
    for (unsigned i = 0; i < chains; ++i) failed += runner(server.url) ? 0 : 1;
    CALLGRIND_STOP_INSTRUMENTATION;
    const auto allocations = gAllocations.load() - before;
    stopServer(server);
    if (failed != 0) throw std::runtime_error(std::to_string(failed) + " chains failed");
    std::printf("{\"hops\": %u, \"chains\": %u, \"allocations\": %llu, \"allocations_per_hop\": %.2f}\n", hops, chains,
                static_cast<unsigned long long>(allocations),
                static_cast<double>(allocations) / (static_cast<double>(chains) * hops));
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "zavlo-hop-cost: %s\n", error.what());
    return 1;
  }
}
