// The members of a --json object that come from a file read by MetaReader:
// every value of its "result: " line, under the same names, in strict JSON.
// Where the result line leaves a value out (not present in the file, or not
// a finite number), the object has the member with null.
#pragma once

#include <string>

#include "report/json_writer.h"
#include "report/meta_reader.h"

// A text of a fixed-size record field as it should read: up to its first
// NUL, without trailing white space.
std::string recordText(const std::string& field);

void movieMembers(JsonWriter& out, const MetaReader& reader);
void stillMembers(JsonWriter& out, const MetaReader& reader, bool isDNG);
