#include "publisher/ca_bundle.hpp"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <string>

#include <openssl/bio.h>
#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "domain/error.hpp"
#include "domain/text_rules.hpp"

namespace ravok {
namespace {

constexpr std::string_view invalid_bundle = "invalid_ca_bundle";
constexpr std::string_view begin_mark = "-----BEGIN ";
constexpr std::string_view end_mark = "-----END ";
constexpr std::string_view last_mark = "-----";
constexpr std::string_view label = "CERTIFICATE";
constexpr std::size_t longest_shown_label = 40;

struct ReleaseObject {
  void operator()(BIO* bio) const { BIO_free(bio); }
  void operator()(X509* certificate) const { X509_free(certificate); }
  void operator()(void* block) const { OPENSSL_free(block); }
};

bool is_text_line(std::string_view line) {
  return std::none_of(line.begin(), line.end(), [](char c) { return is_control(c) && c != '\t'; });
}

// The label of a line that begins or ends a block, or nothing for any other line.
std::string_view label_of(std::string_view line, std::string_view mark) {
  if (!line.starts_with(mark) || !line.ends_with(last_mark) || line.size() < mark.size() + last_mark.size()) {
    return {};
  }
  return line.substr(mark.size(), line.size() - mark.size() - last_mark.size());
}

// The label for a message, into which nothing else of the file gets.
std::string shown_line(std::string_view found) {
  const bool is_plain = found.size() <= longest_shown_label && std::all_of(found.begin(), found.end(), [](char c) {
                          return is_upper_letter(c) || is_digit(c) || c == ' ';
                        });
  return is_plain ? std::string(found) : "another kind";
}

// Whether a block, from its first line to its last, is one certificate and no more.
bool is_certificate(std::string_view block) {
  const std::unique_ptr<BIO, ReleaseObject> input(BIO_new_mem_buf(block.data(), static_cast<int>(block.size())));
  if (!input) {
    throw std::bad_alloc();
  }
  char* name = nullptr;
  char* header = nullptr;
  unsigned char* data = nullptr;
  long size = 0;
  if (PEM_read_bio(input.get(), &name, &header, &data, &size) != 1) {
    ERR_clear_error();
    return false;
  }
  const std::unique_ptr<char, ReleaseObject> name_owner(name);
  const std::unique_ptr<char, ReleaseObject> header_owner(header);
  const std::unique_ptr<unsigned char, ReleaseObject> data_owner(data);
  const unsigned char* end = data;
  const std::unique_ptr<X509, ReleaseObject> certificate(d2i_X509(nullptr, &end, size));
  ERR_clear_error();
  return certificate && end == data + size && std::string_view(header).empty();
}

class Bundle {
 public:
  explicit Bundle(std::string_view pem) : pem_(pem) {}

  void prove() {
    for (std::size_t start = 0; start < pem_.size();) {
      const std::size_t end = std::min(pem_.find('\n', start), pem_.size());
      ++line_;
      read_line(start, end);
      start = end + 1;
    }
    require(block_line_ == 0, invalid_bundle,
            "The CA bundle ends within the certificate that begins in line " + std::to_string(block_line_));
    require(certificates_ > 0, invalid_bundle, "The CA bundle holds no certificate in PEM form");
  }

 private:
  void read_line(std::size_t start, std::size_t end) {
    std::string_view line = pem_.substr(start, end - start);
    // Readers of the form overlook blanks at the end of a line, and so does this one.
    line = line.substr(0, line.find_last_not_of(" \t\r") + 1);
    require(is_text_line(line), invalid_bundle, "Line " + std::to_string(line_) + " of the CA bundle is not text");
    if (line.find(begin_mark) != std::string_view::npos) {
      begin(line, start);
    } else if (line.find(end_mark) != std::string_view::npos) {
      finish(line, end);
    }
  }

  void begin(std::string_view line, std::size_t start) {
    const std::string_view found = label_of(line, begin_mark);
    require(block_line_ == 0 && !found.empty(), invalid_bundle, malformed());
    require(found == label, invalid_bundle,
            "The CA bundle may hold nothing but certificates, and line " + std::to_string(line_) +
                " begins a block of " + shown_line(found));
    block_line_ = line_;
    block_start_ = start;
  }

  void finish(std::string_view line, std::size_t end) {
    require(block_line_ != 0 && label_of(line, end_mark) == label, invalid_bundle, malformed());
    require(is_certificate(pem_.substr(block_start_, end - block_start_)), invalid_bundle,
            "The certificate that begins in line " + std::to_string(block_line_) + " of the CA bundle cannot be read");
    block_line_ = 0;
    ++certificates_;
  }

  std::string malformed() const {
    return "Line " + std::to_string(line_) +
           " of the CA bundle is out of place: each certificate begins and ends with a line of its own";
  }

  const std::string_view pem_;
  std::size_t line_ = 0;
  std::size_t block_line_ = 0;  // 0 outside a certificate
  std::size_t block_start_ = 0;
  std::size_t certificates_ = 0;
};

}  // namespace

void require_certificates(std::string_view pem) { Bundle(pem).prove(); }

}  // namespace ravok
