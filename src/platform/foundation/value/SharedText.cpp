#include "platform/foundation/value/SharedText.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace platform {

/// Followed by the characters, unless it was made of a string.
struct SharedText::Block {
  std::atomic<std::uint32_t> owners = 1;
  bool charactersFollow = true;
  std::size_t length = 0;
  std::atomic<const std::string*> string = nullptr;

  char* characters() { return reinterpret_cast<char*>(this + 1); }
};

SharedText::SharedText(std::string_view text) : block_(new (::operator new(sizeof(Block) + text.size())) Block) {
  block_->length = text.size();
  if (!text.empty()) std::memcpy(block_->characters(), text.data(), text.size());
}

SharedText::SharedText(std::string&& text) {
  auto string = std::make_unique<const std::string>(std::move(text));
  block_ = new (::operator new(sizeof(Block))) Block;
  block_->charactersFollow = false;
  block_->string.store(string.release(), std::memory_order_relaxed);
}

SharedText::SharedText(const SharedText& other) noexcept : block_(other.block_) {
  if (block_ != nullptr) block_->owners.fetch_add(1, std::memory_order_relaxed);
}

void SharedText::release() noexcept {
  // The only owner needs no exclusive access to a count that nobody else can see.
  if (block_->owners.load(std::memory_order_acquire) != 1 && block_->owners.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  delete block_->string.load(std::memory_order_relaxed);
  block_->~Block();
  ::operator delete(block_);
}

std::string_view SharedText::view() const noexcept {
  if (block_->charactersFollow) return {block_->characters(), block_->length};
  return *block_->string.load(std::memory_order_relaxed);
}

const std::string& SharedText::string() const {
  const std::string* made = block_->string.load(std::memory_order_acquire);
  if (made != nullptr) return *made;
  auto fresh = std::make_unique<const std::string>(view());
  // Whoever comes second takes what the first has made.
  if (block_->string.compare_exchange_strong(made, fresh.get(), std::memory_order_acq_rel)) made = fresh.release();
  return *made;
}

}  // namespace platform
