#include "publisher/signing/secret.hpp"

#include <openssl/crypto.h>

namespace ravok {

Secret::~Secret() { OPENSSL_cleanse(bytes_.data(), bytes_.size()); }

void Secret::shorten(std::size_t size) {
  OPENSSL_cleanse(bytes_.data() + size, bytes_.size() - size);
  bytes_.resize(size);
}

void wipe(std::string& text) { OPENSSL_cleanse(text.data(), text.size()); }

}  // namespace ravok
