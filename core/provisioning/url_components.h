#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace harborkeeper {

// One "name=value" item of a URL's query, percent-decoded. An item written
// without "=" has no value.
struct UrlQueryItem {
  std::string name;
  std::optional<std::string> value;
  bool operator==(const UrlQueryItem&) const = default;
};

// The parts of an absolute URL with an authority ("scheme://host/..."), read
// and written through libcurl's URL API, which accepts any scheme here.
struct UrlComponents {
  std::string scheme;  // lower case
  std::string host;    // as written (percent escapes decoded by libcurl), may be empty
  std::string path;    // as written: no percent-decoding, dot segments kept
  std::vector<UrlQueryItem> queryItems;

  // Nothing unless `text` is printable ASCII without spaces, begins with
  // "scheme://" followed by the authority (not a further "/"), is accepted by
  // libcurl, and every percent escape in its query is two hexadecimal digits.
  static std::optional<UrlComponents> parse(std::string_view text);

  // The value of the first item named `name`, if it has one.
  [[nodiscard]] std::optional<std::string> firstQueryValue(std::string_view name) const;

  // The URL of these components, query names and values percent-encoded
  // (unreserved characters kept); nothing when libcurl refuses a part.
  [[nodiscard]] std::optional<std::string> url() const;
};

}  // namespace harborkeeper
