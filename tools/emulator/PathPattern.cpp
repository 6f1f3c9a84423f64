#include "emulator/PathPattern.h"

#include <stdexcept>

#include <boost/url/parse.hpp>
#include <boost/url/url_view.hpp>

namespace kel::emulator {

std::optional<std::string> Target::queryValue(std::string_view key) const {
  for (const auto& [k, v] : query) {
    if (k == key) return v;
  }
  return std::nullopt;
}

std::optional<Target> parseTarget(std::string_view target) {
  auto parsed = boost::urls::parse_origin_form(target);
  if (!parsed) return std::nullopt;
  const auto& url = *parsed;
  Target result;
  result.path = std::string(url.encoded_path());
  for (auto segment : url.segments()) {
    if (!segment.empty()) result.segments.push_back(std::move(segment));
  }
  if (url.has_query()) {
    for (auto param : url.params()) {
      result.query.emplace_back(std::move(param.key),
                                param.has_value ? std::move(param.value) : std::string());
    }
  }
  return result;
}

PathPattern::PathPattern(std::string_view pattern) : text_(pattern) {
  if (!pattern.starts_with('/')) {
    throw std::invalid_argument("a path pattern starts with \"/\": " + text_);
  }
  std::size_t start = 1;
  while (start <= pattern.size()) {
    auto end = pattern.find('/', start);
    if (end == std::string_view::npos) end = pattern.size();
    auto piece = pattern.substr(start, end - start);
    if (!piece.empty()) {
      Segment segment;
      if (piece.starts_with(':')) {
        if (piece.size() == 1) throw std::invalid_argument("unnamed parameter in " + text_);
        segment.text = std::string(piece.substr(1));
        segment.isParam = true;
      } else {
        segment.text = std::string(piece);
        ++literalCount_;
      }
      segments_.push_back(std::move(segment));
    }
    start = end + 1;
  }
}

std::optional<PathPattern::Match> PathPattern::match(
    const std::vector<std::string>& segments) const {
  if (segments.size() < segments_.size()) return std::nullopt;
  Match result;
  for (std::size_t i = 0; i < segments_.size(); ++i) {
    const auto& mine = segments_[i];
    if (mine.isParam) {
      result.params.insert_or_assign(mine.text, segments[i]);
    } else if (mine.text != segments[i]) {
      return std::nullopt;
    }
  }
  for (std::size_t i = segments_.size(); i < segments.size(); ++i) {
    if (!result.rest.empty()) result.rest += '/';
    result.rest += segments[i];
  }
  return result;
}

int PathPattern::compareSpecificity(const PathPattern& other) const noexcept {
  if (segments_.size() != other.segments_.size()) {
    return segments_.size() > other.segments_.size() ? 1 : -1;
  }
  if (literalCount_ != other.literalCount_) return literalCount_ > other.literalCount_ ? 1 : -1;
  return 0;
}

}  // namespace kel::emulator
