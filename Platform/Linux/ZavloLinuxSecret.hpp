#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Platform/ZavloOwnerAuthentication.hpp"

/// Bytes that must not outlive their use (a password, a PIN, a derived key, a private
/// scalar): kept in pages of their own that are locked out of swap where the limits allow
/// it and left out of core dumps, and wiped before they are given back. Move-only.
///
/// Allocation never throws for want of mappings: without them the bytes live on the heap,
/// still wiped at the end.
class ZavloLinuxSecret {
 public:
  ZavloLinuxSecret() = default;
  /// size zero bytes.
  explicit ZavloLinuxSecret(std::size_t size);
  ZavloLinuxSecret(ZavloLinuxSecret&& other) noexcept;
  ZavloLinuxSecret& operator=(ZavloLinuxSecret&& other) noexcept;
  ZavloLinuxSecret(const ZavloLinuxSecret&) = delete;
  ZavloLinuxSecret& operator=(const ZavloLinuxSecret&) = delete;
  ~ZavloLinuxSecret();

  static ZavloLinuxSecret copyOf(std::span<const std::uint8_t> bytes);

  [[nodiscard]] std::uint8_t* data() { return bytes_; }
  [[nodiscard]] const std::uint8_t* data() const { return bytes_; }
  [[nodiscard]] std::size_t size() const { return size_; }
  [[nodiscard]] bool empty() const { return size_ == 0; }
  [[nodiscard]] std::span<std::uint8_t> bytes() { return {bytes_, size_}; }
  [[nodiscard]] std::span<const std::uint8_t> bytes() const { return {bytes_, size_}; }
  /// Makes the secret shorter, wiping what is cut off (a line end read with a password).
  void shrink(std::size_t size);
  /// Whether the pages are locked in memory (false where RLIMIT_MEMLOCK did not allow it).
  [[nodiscard]] bool locked() const { return locked_; }

 private:
  void release() noexcept;

  std::uint8_t* bytes_ = nullptr;
  std::size_t size_ = 0;
  std::size_t mapped_ = 0;  // bytes mapped for it; 0 when it lives on the heap
  bool locked_ = false;
};

/// The proof a Linux owner prompt leaves: the secret the owner gave, held as a
/// ZavloLinuxSecret.
class ZavloLinuxOwnerProof final : public ZavloOwnerProof {
 public:
  ZavloLinuxOwnerProof(ZavloLinuxSecret secret, bool verified) : secret_(std::move(secret)), verified_(verified) {}

  [[nodiscard]] std::span<const std::uint8_t> secret() const override { return secret_.bytes(); }
  [[nodiscard]] bool verified() const override { return verified_; }

 private:
  ZavloLinuxSecret secret_;
  bool verified_;
};
