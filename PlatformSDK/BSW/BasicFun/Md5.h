/// MD5 (RFC 1321) of files and of bytes as they arrive, through libcrypto. Packages are compared with it; it
/// is a check against damage, not against forgery.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "BSW/BasicFun/FileUtils.h"

struct evp_md_ctx_st;  // libcrypto's EVP_MD_CTX

namespace md5 {

/// True for 32 lower-case hex digits.
bool IsDigest(std::string_view text);

/// The digest of what is fed to it piece by piece. One thread at a time.
class Digest {
 public:
  Digest();
  ~Digest();
  Digest(const Digest&) = delete;
  Digest& operator=(const Digest&) = delete;

  /// Forgets what it was fed.
  void Reset();
  void Update(const void* data, size_t length);
  /// 32 lower-case hex digits; empty when libcrypto failed. Only Reset may follow.
  std::string Finish();

 private:
  struct ContextFree {
    void operator()(evp_md_ctx_st* context) const;
  };
  std::unique_ptr<evp_md_ctx_st, ContextFree> m_pContext;
  bool m_bGood = false;  ///< every step so far succeeded
};

/// The digest of the file's content as 32 lower-case hex digits, read with constant memory. Empty when the
/// file cannot be read to its end or `stop` turned true.
std::string MD5(const std::string& path, const StopPredicate& stop = {});

}  // namespace md5
