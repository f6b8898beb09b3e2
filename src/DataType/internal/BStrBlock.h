#ifndef OSTRELLED_SRC_DATATYPE_INTERNAL_BSTRBLOCK_H
#define OSTRELLED_SRC_DATATYPE_INTERNAL_BSTRBLOCK_H

// Counted-string blocks and the object behind a bstr_handle; header-only, used
// by the counted strings, the variants, the safe arrays and the wrappers.

#include <climits>
#include <cstring>
#include <new>
#include <string>

#include <ostrelled/BStr.h>

// The object behind the counted-string interface: owns at most one block.
struct bstr_handle {
  bstr_handle() : m_bstrValue(nullptr) {}
  // Frees the value (bstr_clear); never throws.
  virtual ~bstr_handle() { bstr_clear(this); }

  LPBSTRUNIT m_bstrValue;
};

// Counted-string blocks: a signed 32-bit length word L, then L data bytes, in one
// array of L + 4 cells. Shared by the counted strings, the variants and the containers.
namespace ostrelled {
namespace internal {

constexpr int kBlockHeader = static_cast<int>(sizeof(int));

// The length word (the block may be unaligned for an int, hence the copy).
inline int blockLength(LPBSTRUNIT block) {
  int len;
  std::memcpy(&len, block, sizeof len);
  return len;
}

inline const char* blockData(LPBSTRUNIT block) { return reinterpret_cast<const char*>(block) + kBlockHeader; }

// A new block of len bytes copied from data (len 0 copies nothing). A length that the
// 32-bit length word cannot hold fails like any impossible allocation.
inline LPBSTRUNIT makeBlock(const char* data, size_t len) {
  if (len > static_cast<size_t>(INT_MAX - kBlockHeader)) throw std::bad_array_new_length();
  LPBSTRUNIT block = new BSTR_UNIT[len + kBlockHeader];
  const int word = static_cast<int>(len);
  std::memcpy(block, &word, sizeof word);
  if (len > 0) std::memcpy(reinterpret_cast<char*>(block) + kBlockHeader, data, len);
  return block;
}

// Deep copy; null for a null block and for one whose length word is negative.
inline LPBSTRUNIT copyBlock(LPBSTRUNIT block) {
  if (block == nullptr || blockLength(block) < 0) return nullptr;
  return makeBlock(blockData(block), static_cast<size_t>(blockLength(block)));
}

inline void freeBlock(LPBSTRUNIT& block) {
  delete[] block;
  block = nullptr;
}

// Two null blocks are equal, a null and a present one are not; otherwise the length
// words and then the L data bytes decide.
inline bool blockDataEqual(LPBSTRUNIT block1, LPBSTRUNIT block2) {
  if (block1 == nullptr || block2 == nullptr) return block1 == block2;
  const int len = blockLength(block1);
  if (len != blockLength(block2)) return false;
  return len <= 0 || std::memcmp(blockData(block1), blockData(block2), static_cast<size_t>(len)) == 0;
}

// Calls f with the block's data read as zero-terminated text: "" for a null or empty
// block. A raw-data block that holds no zero byte is read through a terminated copy,
// so the text never runs past the block.
template <class F>
auto withBlockText(LPBSTRUNIT block, F&& f) {
  const int len = block == nullptr ? 0 : blockLength(block);
  if (len <= 0) return f(static_cast<const char*>(""));
  const char* data = blockData(block);
  if (std::memchr(data, 0, static_cast<size_t>(len)) != nullptr) return f(data);
  const std::string terminated(data, static_cast<size_t>(len));
  return f(terminated.c_str());
}

}  // namespace internal
}  // namespace ostrelled

#endif
