#include "ServerClient/Utils/QueryBuilder.h"

#include <boost/url/encode.hpp>
#include <boost/url/grammar/lut_chars.hpp>
#include <boost/url/param.hpp>
#include <boost/url/pct_string_view.hpp>
#include <boost/url/rfc/pchars.hpp>
#include <boost/url/url.hpp>

#include "ServerClient/Utils/Description.h"

namespace kel {
namespace {

namespace urls = boost::urls;

// What a query allows literally (RFC 3986: pchar, "/" and "?") less the characters that would
// make a name or value ambiguous; see the header.
constexpr urls::grammar::lut_chars kItemChars = urls::pchars + '/' + '?' - "&=+;";

}  // namespace

QueryValue::QueryValue(double value) {
  detail::appendFloating(text_, value);
}

std::string QueryBuilder::build() const {
  urls::url url;
  auto items = url.encoded_params();
  for (const auto& [name, value] : params_) {
    if (!value) continue;
    const std::string encodedName = urls::encode(name, kItemChars);
    const std::string encodedValue = urls::encode(value->text(), kItemChars);
    items.append(urls::param_pct_view(urls::pct_string_view(encodedName),
                                      urls::pct_string_view(encodedValue)));
  }
  const auto query = url.encoded_query();
  if (query.empty()) return {};
  std::string text = "?";
  text.append(query.data(), query.size());
  return text;
}

}  // namespace kel
