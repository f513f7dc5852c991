// Texts taken from the XML packets of a movie.
#pragma once

#include <string>

// The first capture group of the leftmost match of the ECMAScript pattern
// "<name> *(.+) *</name>" in text, or "" when nothing matches. The capture
// is greedy: blanks before the closing tag belong to it. Written out by
// hand because a backtracking regex engine recurses once per character of
// a long line.
std::string captureElement(const std::string& text, const std::string& name);
