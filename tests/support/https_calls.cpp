#include "support/https_calls.hpp"

#include <algorithm>
#include <cstdarg>
#include <utility>

namespace ravok::testing {
namespace {

using DataCallback = std::size_t (*)(char*, std::size_t, std::size_t, void*);
using ProgressFunction = int (*)(void*, curl_off_t, curl_off_t, curl_off_t, curl_off_t);

struct Callback {
  DataCallback function = nullptr;
  void* context = nullptr;

  std::size_t call(char* bytes, std::size_t size, std::size_t count) const {
    return function(bytes, size, count, context);
  }
  // The library hands over memory of its own.
  bool takes(std::string_view bytes) const {
    std::string buffer(bytes);
    return call(buffer.data(), 1, buffer.size()) == bytes.size();
  }
};

struct Script {
  HttpsPlan plan;
  std::vector<std::string> options;
  int performed = 0;
  int open_handles = 0;
  int header_lines = 0;
  Callback header;
  Callback body;
  Callback upload;
  ProgressFunction progress = nullptr;
  void* progress_context = nullptr;
};

Script* script = nullptr;

std::string quoted(const char* text) { return text == nullptr ? "nothing" : "'" + std::string(text) + "'"; }

std::string all_lines(const curl_slist* list) {
  std::string lines;
  for (; list != nullptr; list = list->next) {
    lines += (lines.empty() ? "" : " ") + quoted(list->data);
  }
  return lines;
}

constexpr std::size_t half = SIZE_MAX / 2 + 1;

}  // namespace

bool Performance::header(std::string_view line) const { return script->header.takes(line); }

bool Performance::body(std::string_view bytes) const { return script->body.takes(bytes); }

bool Performance::progress(curl_off_t download_total, curl_off_t download_now, curl_off_t upload_total,
                           curl_off_t upload_now) const {
  return script->progress(script->progress_context, download_total, download_now, upload_total, upload_now) == 0;
}

std::optional<std::string> Performance::send(std::size_t room) const {
  std::string buffer(room, '\0');
  const std::size_t count = script->upload.call(buffer.data(), 1, room);
  if (count == CURL_READFUNC_ABORT) {
    return std::nullopt;
  }
  buffer.resize(count);
  return buffer;
}

std::size_t Performance::too_large_header() const { return script->header.call(nullptr, half, 2); }

std::size_t Performance::too_large_body() const { return script->body.call(nullptr, half, 2); }

std::size_t Performance::too_large_room() const { return script->upload.call(nullptr, half, 2); }

HttpsCalls::HttpsCalls(HttpsPlan plan) {
  script = new Script();
  script->plan = std::move(plan);
}

HttpsCalls::~HttpsCalls() { delete std::exchange(script, nullptr); }

const std::vector<std::string>& HttpsCalls::options() const { return script->options; }

std::string HttpsCalls::value(std::string_view option) const {
  const std::string beginning = std::string(option) + "=";
  const auto found = std::find_if(script->options.begin(), script->options.end(),
                                  [&](const std::string& set) { return set.starts_with(beginning); });
  return found == script->options.end() ? "" : found->substr(beginning.size());
}

int HttpsCalls::performed() const { return script->performed; }

int HttpsCalls::open_handles() const { return script->open_handles; }

extern "C" {

CURL* __real_curl_easy_init();
CURL* __wrap_curl_easy_init();
void __real_curl_easy_cleanup(CURL* easy);
void __wrap_curl_easy_cleanup(CURL* easy);
CURLcode __real_curl_easy_setopt(CURL* easy, CURLoption option, ...);
CURLcode __wrap_curl_easy_setopt(CURL* easy, CURLoption option, ...);
CURLcode __real_curl_easy_perform(CURL* easy);
CURLcode __wrap_curl_easy_perform(CURL* easy);
CURLcode __real_curl_easy_getinfo(CURL* easy, CURLINFO info, ...);
CURLcode __wrap_curl_easy_getinfo(CURL* easy, CURLINFO info, ...);
curl_slist* __real_curl_slist_append(curl_slist* list, const char* text);
curl_slist* __wrap_curl_slist_append(curl_slist* list, const char* text);

CURL* __wrap_curl_easy_init() {
  if (script == nullptr) {
    return __real_curl_easy_init();
  }
  if (script->plan.failing == "init") {
    return nullptr;
  }
  ++script->open_handles;
  return __real_curl_easy_init();
}

void __wrap_curl_easy_cleanup(CURL* easy) {
  if (script != nullptr) {
    --script->open_handles;
  }
  __real_curl_easy_cleanup(easy);
}

// Every value also goes to the library, which refuses one that it cannot use.
CURLcode __wrap_curl_easy_setopt(CURL* easy, CURLoption option, ...) {
  const curl_easyoption* const known = curl_easy_option_by_id(option);
  if (known == nullptr) {
    return CURLE_UNKNOWN_OPTION;
  }
  Script unused;
  Script& noted = script != nullptr ? *script : unused;
  std::string text = known->name;
  const bool refused = script != nullptr && script->plan.failing == known->name;

  va_list values;
  va_start(values, option);
  CURLcode answer = CURLE_UNKNOWN_OPTION;
  const auto set = [&](auto value) {
    answer = refused ? CURLE_OUT_OF_MEMORY : __real_curl_easy_setopt(easy, option, value);
  };
  const auto data_callback = [&](Callback& callback) {
    callback.function = va_arg(values, DataCallback);
    set(callback.function);
  };
  const auto context = [&](void*& pointer) {
    pointer = va_arg(values, void*);
    set(pointer);
  };
  switch (option) {
    case CURLOPT_HEADERFUNCTION:
      data_callback(noted.header);
      break;
    case CURLOPT_WRITEFUNCTION:
      data_callback(noted.body);
      break;
    case CURLOPT_READFUNCTION:
      data_callback(noted.upload);
      break;
    case CURLOPT_XFERINFOFUNCTION:
      noted.progress = va_arg(values, ProgressFunction);
      set(noted.progress);
      break;
    case CURLOPT_HEADERDATA:
      context(noted.header.context);
      break;
    case CURLOPT_WRITEDATA:
      context(noted.body.context);
      break;
    case CURLOPT_READDATA:
      context(noted.upload.context);
      break;
    case CURLOPT_XFERINFODATA:
      context(noted.progress_context);
      break;
    case CURLOPT_HTTPHEADER: {
      auto* const list = va_arg(values, curl_slist*);
      text += "=" + all_lines(list);
      set(list);
      break;
    }
    case CURLOPT_CAINFO_BLOB: {
      auto* const blob = va_arg(values, curl_blob*);
      text += "='" + std::string(static_cast<const char*>(blob->data), blob->len) + "'";
      text += blob->flags == CURL_BLOB_COPY ? "" : ", not copied";
      set(blob);
      break;
    }
    default:
      if (known->type == CURLOT_LONG || known->type == CURLOT_VALUES) {
        const long number = va_arg(values, long);
        text += "=" + std::to_string(number);
        set(number);
      } else if (known->type == CURLOT_OFF_T) {
        const curl_off_t number = va_arg(values, curl_off_t);
        text += "=" + std::to_string(number);
        set(number);
      } else if (known->type == CURLOT_STRING || option == CURLOPT_POSTFIELDS) {
        const char* const string = va_arg(values, const char*);
        text += "=" + quoted(string);
        set(string);
      }
  }
  va_end(values);
  noted.options.push_back(text);
  return answer;
}

CURLcode __wrap_curl_easy_perform(CURL* easy) {
  if (script == nullptr) {
    return __real_curl_easy_perform(easy);
  }
  ++script->performed;
  return script->plan.perform ? script->plan.perform(Performance()) : CURLE_OK;
}

CURLcode __wrap_curl_easy_getinfo(CURL* easy, CURLINFO info, ...) {
  va_list values;
  va_start(values, info);
  long* const status = va_arg(values, long*);
  va_end(values);
  if (script == nullptr) {
    return __real_curl_easy_getinfo(easy, info, status);
  }
  if (script->plan.failing == "status" || info != CURLINFO_RESPONSE_CODE) {
    return CURLE_UNKNOWN_OPTION;
  }
  *status = script->plan.status;
  return CURLE_OK;
}

curl_slist* __wrap_curl_slist_append(curl_slist* list, const char* text) {
  if (script != nullptr && script->plan.failing == "header " + std::to_string(++script->header_lines)) {
    return nullptr;
  }
  return __real_curl_slist_append(list, text);
}

}  // extern "C"

}  // namespace ravok::testing
