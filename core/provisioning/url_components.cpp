#include "core/provisioning/url_components.h"

#include <curl/curl.h>

#include <algorithm>
#include <memory>

#include "core/foundation/text.h"

namespace harborkeeper {

namespace {

struct UrlHandleDeleter {
  void operator()(CURLU* handle) const { curl_url_cleanup(handle); }
};
using UrlHandle = std::unique_ptr<CURLU, UrlHandleDeleter>;

struct CurlTextDeleter {
  void operator()(char* text) const { curl_free(text); }
};

// Any scheme, dot segments left alone: a link means exactly what it says.
constexpr unsigned kParseFlags = CURLU_NON_SUPPORT_SCHEME | CURLU_PATH_AS_IS;

// An absent part (no query, say) reads as empty; any other failure as nothing.
std::optional<std::string> part(CURLU* handle, CURLUPart which) {
  char* raw = nullptr;
  const CURLUcode code = curl_url_get(handle, which, &raw, 0);
  const std::unique_ptr<char, CurlTextDeleter> owned(raw);
  if (code == CURLUE_OK) return std::string(raw);
  if (code == CURLUE_NO_QUERY || code == CURLUE_NO_HOST) return std::string();
  return std::nullopt;
}

bool isPrintableAscii(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return c > ' ' && c < '\x7F'; });
}

// libcurl also takes "https:/host" and "https:///host", reading "host" as the
// host; here the authority must follow exactly two slashes.
bool hasAuthority(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos || colon == 0) return false;
  const std::string_view rest = text.substr(colon + 1);
  return rest.starts_with("//") && !rest.substr(2).starts_with('/');
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// "%41" -> "A"; a "%" without two hexadecimal digits is an error. "+" stays "+".
std::optional<std::string> percentDecoded(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      out.push_back(text[i]);
      continue;
    }
    if (i + 2 >= text.size()) return std::nullopt;
    const int high = hexValue(text[i + 1]);
    const int low = hexValue(text[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    out.push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  return out;
}

std::string percentEncoded(std::string_view text) {
  static constexpr std::string_view kHex = "0123456789ABCDEF";
  std::string out;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    const bool unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                            c == '-' || c == '.' || c == '_' || c == '~';
    if (unreserved) {
      out.push_back(c);
    } else {
      out.push_back('%');
      out.push_back(kHex[byte >> 4]);
      out.push_back(kHex[byte & 0xF]);
    }
  }
  return out;
}

// "a=1&b&c=%20" -> {a, "1"}, {b, none}, {c, " "}; empty pieces are skipped.
std::optional<std::vector<UrlQueryItem>> splitQuery(std::string_view query) {
  std::vector<UrlQueryItem> items;
  while (!query.empty()) {
    const std::size_t end = std::min(query.find('&'), query.size());
    const std::string_view piece = query.substr(0, end);
    query.remove_prefix(std::min(end + 1, query.size()));
    if (piece.empty()) continue;
    const std::size_t equals = piece.find('=');
    auto name = percentDecoded(piece.substr(0, equals));
    if (!name) return std::nullopt;
    UrlQueryItem item{std::move(*name), std::nullopt};
    if (equals != std::string_view::npos) {
      item.value = percentDecoded(piece.substr(equals + 1));
      if (!item.value) return std::nullopt;
    }
    items.push_back(std::move(item));
  }
  return items;
}

}  // namespace

std::optional<UrlComponents> UrlComponents::parse(std::string_view text) {
  if (!isPrintableAscii(text) || !hasAuthority(text)) return std::nullopt;
  const UrlHandle handle(curl_url());
  if (!handle) return std::nullopt;
  const std::string terminated(text);
  if (curl_url_set(handle.get(), CURLUPART_URL, terminated.c_str(), kParseFlags) != CURLUE_OK) {
    return std::nullopt;
  }
  auto scheme = part(handle.get(), CURLUPART_SCHEME);
  auto host = part(handle.get(), CURLUPART_HOST);
  auto path = part(handle.get(), CURLUPART_PATH);
  const auto query = part(handle.get(), CURLUPART_QUERY);
  if (!scheme || !host || !path || !query) return std::nullopt;
  auto items = splitQuery(*query);
  if (!items) return std::nullopt;
  return UrlComponents{text::lowercased(*scheme), std::move(*host), std::move(*path), std::move(*items)};
}

std::optional<std::string> UrlComponents::firstQueryValue(std::string_view name) const {
  const auto found = std::find_if(queryItems.begin(), queryItems.end(),
                                  [&](const UrlQueryItem& item) { return item.name == name; });
  return found == queryItems.end() ? std::nullopt : found->value;
}

std::optional<std::string> UrlComponents::url() const {
  const UrlHandle handle(curl_url());
  if (!handle) return std::nullopt;
  std::string query;
  for (const UrlQueryItem& item : queryItems) {
    if (!query.empty()) query += '&';
    query += percentEncoded(item.name);
    if (item.value) query += '=' + percentEncoded(*item.value);
  }
  const auto set = [&](CURLUPart which, const std::string& value) {
    return curl_url_set(handle.get(), which, value.c_str(), CURLU_NON_SUPPORT_SCHEME) == CURLUE_OK;
  };
  if (!set(CURLUPART_SCHEME, scheme) || !set(CURLUPART_HOST, host) || !set(CURLUPART_PATH, path)) {
    return std::nullopt;
  }
  if (!queryItems.empty() && !set(CURLUPART_QUERY, query)) return std::nullopt;
  return part(handle.get(), CURLUPART_URL);
}

}  // namespace harborkeeper
