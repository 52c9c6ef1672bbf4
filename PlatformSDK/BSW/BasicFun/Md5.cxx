/// MD5 of files and streams. Packages of hundreds of megabytes pass here, so the buffer is large and page
/// aligned and the kernel is told to read ahead.
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

bool IsDigest(std::string_view text) {
  constexpr size_t kDigits = 32;
  return text.size() == kDigits && text.find_first_not_of("0123456789abcdef") == std::string_view::npos;
}

void Digest::ContextFree::operator()(evp_md_ctx_st* context) const {
  EVP_MD_CTX_free(context);
}

Digest::Digest() : m_pContext(EVP_MD_CTX_new()) {
  Reset();
}

Digest::~Digest() = default;

void Digest::Reset() {
  m_bGood = m_pContext && EVP_DigestInit_ex(m_pContext.get(), EVP_md5(), nullptr) == 1;
}

void Digest::Update(const void* data, size_t length) {
  m_bGood = m_bGood && EVP_DigestUpdate(m_pContext.get(), data, length) == 1;
}

std::string Digest::Finish() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  unsigned length = 0;
  if (!m_bGood || EVP_DigestFinal_ex(m_pContext.get(), digest.data(), &length) != 1) return {};
  return ToHex(digest.data(), length);
}

std::string MD5(const std::string& path, const StopPredicate& stop) {
  const UniqueFd file = OpenRegularFile(path);
  if (!file) return {};
  posix_fadvise(file.Get(), 0, 0, POSIX_FADV_SEQUENTIAL);
  const auto buffer = std::make_unique<PageAlignedBuffer>();
  Digest digest;
  for (;;) {
    if (stop && stop()) return {};
    const ssize_t got =
        RetryInterrupted([&] { return read(file.Get(), buffer->bytes.data(), buffer->bytes.size()); });
    if (got < 0) return {};
    if (got == 0) return digest.Finish();
    digest.Update(buffer->bytes.data(), static_cast<size_t>(got));
  }
}

}  // namespace md5
