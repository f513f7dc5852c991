#include "report/xml_text.h"

#include <string_view>

std::string captureElement(const std::string& text, const std::string& name) {
  const std::string open = "<" + name + ">";
  const std::string close = "</" + name + ">";
  // '.' stops at line terminators, so a match lies on one line; the last
  // closing tag of each line is looked up once for all openings on it.
  size_t lineEnd = std::string::npos;
  size_t lastClose = std::string::npos;
  for (size_t at = text.find(open); at != std::string::npos; at = text.find(open, at + 1)) {
    const size_t afterOpen = at + open.size();
    if (lineEnd == std::string::npos || afterOpen > lineEnd) {
      lineEnd = text.find_first_of("\r\n", afterOpen);
      if (lineEnd == std::string::npos) lineEnd = text.size();
      // Looked up within the line only: a search that runs on towards the
      // start of the text would make a text of many lines quadratic.
      const size_t inLine = std::string_view(text).substr(afterOpen, lineEnd - afterOpen).rfind(close);
      lastClose = inLine == std::string_view::npos ? std::string::npos : afterOpen + inLine;
    }
    if (lastClose == std::string::npos) continue;
    // " *" is greedy: take every blank first and give back one at a time
    // until "(.+)" can end at the last closing tag.
    size_t blanks = 0;
    while (afterOpen + blanks < lineEnd && text[afterOpen + blanks] == ' ') ++blanks;
    for (size_t take = blanks + 1; take-- > 0;) {
      const size_t from = afterOpen + take;
      if (lastClose >= from + 1) return text.substr(from, lastClose - from);
    }
  }
  return std::string();
}
