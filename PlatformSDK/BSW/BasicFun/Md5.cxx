/// MD5 of files. Packages of hundreds of megabytes pass here, so the buffer is large and page aligned and the
/// kernel is told to read ahead.
#include "BSW/BasicFun/Md5.h"

#include <fcntl.h>
#include <openssl/evp.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <memory>

namespace md5 {
namespace {

struct alignas(4096) PageAlignedBuffer {
  std::array<unsigned char, 256U * 1024U> bytes;
};

struct ContextFree {
  void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};
using ContextPtr = std::unique_ptr<EVP_MD_CTX, ContextFree>;

/// Feeds the file to its end.
bool DigestFile(int fd, EVP_MD_CTX* context, const StopPredicate& stop) {
  const auto buffer = std::make_unique<PageAlignedBuffer>();
  for (;;) {
    if (stop && stop()) return false;
    const ssize_t got =
        RetryInterrupted([&] { return read(fd, buffer->bytes.data(), buffer->bytes.size()); });
    if (got <= 0) return got == 0;
    if (EVP_DigestUpdate(context, buffer->bytes.data(), static_cast<size_t>(got)) != 1) return false;
  }
}

std::string ToHex(const unsigned char* data, size_t length) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (size_t i = 0; i < length; ++i) {
    text += kDigits[data[i] >> 4U];
    text += kDigits[data[i] & 0x0FU];
  }
  return text;
}

}  // namespace

std::string MD5(const std::string& path, const StopPredicate& stop) {
  const UniqueFd file = OpenRegularFile(path);
  const ContextPtr context(EVP_MD_CTX_new());
  if (!file || !context || EVP_DigestInit_ex(context.get(), EVP_md5(), nullptr) != 1) return {};
  posix_fadvise(file.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  if (!DigestFile(file.Get(), context.get(), stop)) return {};
  if (EVP_DigestFinal_ex(context.get(), digest.data(), &length) != 1) return {};
  return ToHex(digest.data(), length);
}

}  // namespace md5
