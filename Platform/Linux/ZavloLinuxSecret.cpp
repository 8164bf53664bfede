#include "Platform/Linux/ZavloLinuxSecret.hpp"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace {

std::size_t pageRounded(std::size_t size) {
  const long page = sysconf(_SC_PAGESIZE);
  const auto unit = page > 0 ? static_cast<std::size_t>(page) : std::size_t{4096};
  return (size + unit - 1) / unit * unit;
}

}  // namespace

ZavloLinuxSecret::ZavloLinuxSecret(std::size_t size) : size_(size) {
  if (size == 0) return;
  const auto length = pageRounded(size);
  void* pages = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (pages == MAP_FAILED) {
    // No mapping to be had: the heap still gets the bytes wiped at the end.
    bytes_ = new std::uint8_t[size]();
    return;
  }
  mapped_ = length;
  bytes_ = static_cast<std::uint8_t*>(pages);
  // Best effort, each: a low RLIMIT_MEMLOCK refuses the lock, an old kernel the advice.
  locked_ = mlock(pages, length) == 0;
  (void)madvise(pages, length, MADV_DONTDUMP);
  (void)madvise(pages, length, MADV_WIPEONFORK);  // a forked child gets zeros, not the secret
}

ZavloLinuxSecret::ZavloLinuxSecret(ZavloLinuxSecret&& other) noexcept
    : bytes_(std::exchange(other.bytes_, nullptr)),
      size_(std::exchange(other.size_, 0)),
      mapped_(std::exchange(other.mapped_, 0)),
      locked_(std::exchange(other.locked_, false)) {}

ZavloLinuxSecret& ZavloLinuxSecret::operator=(ZavloLinuxSecret&& other) noexcept {
  if (this != &other) {
    release();
    bytes_ = std::exchange(other.bytes_, nullptr);
    size_ = std::exchange(other.size_, 0);
    mapped_ = std::exchange(other.mapped_, 0);
    locked_ = std::exchange(other.locked_, false);
  }
  return *this;
}

ZavloLinuxSecret::~ZavloLinuxSecret() { release(); }

ZavloLinuxSecret ZavloLinuxSecret::copyOf(std::span<const std::uint8_t> bytes) {
  ZavloLinuxSecret secret(bytes.size());
  if (!bytes.empty()) std::memcpy(secret.data(), bytes.data(), bytes.size());
  return secret;
}

void ZavloLinuxSecret::shrink(std::size_t size) {
  if (size >= size_) return;
  explicit_bzero(bytes_ + size, size_ - size);
  size_ = size;
}

void ZavloLinuxSecret::release() noexcept {
  if (bytes_ == nullptr) return;
  if (mapped_ != 0) {
    explicit_bzero(bytes_, mapped_);
    if (locked_) (void)munlock(bytes_, mapped_);
    (void)munmap(bytes_, mapped_);
  } else {
    explicit_bzero(bytes_, size_);
    delete[] bytes_;
  }
  bytes_ = nullptr;
  size_ = 0;
  mapped_ = 0;
  locked_ = false;
}
