// The three written forms of a change (see OutputMode.h and Change.h).
//
// text:  "<kind, padded to 10> <path>", then " (<reasons>)" for changed and
//        renamed entries with reasons; renamed: "<old path> -> <path>";
//        unreadable: "<path>: <error>".
// -0:    "<kind>\t<reasons, comma-separated, or ->\t<path>\0"; renamed adds
//        "<old path>\0"; unreadable carries the error in the reasons field.
// JSON:  {"change": kind, "reasons": [...], the entry's fields (EntryJson.h),
//        "old_path" for renamed, "error" for unreadable}.
#pragma once

#include <cstdio>
#include <string>

#include <nlohmann/json.hpp>

#include "Change.h"
#include "OutputMode.h"

std::string ChangeText(const Change& change);
nlohmann::json ChangeJson(const Change& change);
// The change a ChangeJson object describes; false when it is not one.
bool ChangeFromJson(const nlohmann::json& object, Change& change);

// Writes `change` in `mode` to `out`.
void WriteChange(FILE* out, OutputMode mode, const Change& change);
