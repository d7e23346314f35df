#include "ChangeFormat.h"

#include "EntryJson.h"

std::string ChangeText(const Change& change) {
  std::string line = ChangeKindName(change.kind);
  line.resize(10, ' ');
  line += ' ';
  if (change.kind == ChangeKind::kRenamed) line += change.oldPath + " -> ";
  line += change.path;
  if (change.kind == ChangeKind::kUnreadable) {
    line += ": " + change.error;
  } else if (change.reasons && change.kind != ChangeKind::kNew) {
    line += " (" + ReasonsText(change.reasons, ", ") + ")";
  }
  return line;
}

nlohmann::json ChangeJson(const Change& change) {
  nlohmann::json object;
  object["change"] = ChangeKindName(change.kind);
  nlohmann::json reasons = nlohmann::json::array();
  for (unsigned bit = 1; bit <= kReasonExcluded; bit <<= 1)
    if (change.reasons & bit) reasons.push_back(ReasonsText(bit, ""));
  object["reasons"] = reasons;
  if (change.kind == ChangeKind::kUnreadable) {
    PutPath(object, "path", change.path);
    object["error"] = change.error;
    return object;
  }
  object.update(EntryJson(change.path, change.st, change.isDir, 0));
  object.erase("ref");
  if (change.kind == ChangeKind::kRenamed) PutPath(object, "old_path", change.oldPath);
  return object;
}

bool ChangeFromJson(const nlohmann::json& object, Change& change) {
  if (!object.is_object() || !object.contains("change") || !object["change"].is_string())
    return false;
  if (!ChangeKindFromName(object["change"].get<std::string>(), change.kind)) return false;
  change.reasons = 0;
  if (object.contains("reasons") && object["reasons"].is_array())
    for (const auto& reason : object["reasons"])
      if (reason.is_string()) change.reasons |= ReasonFromName(reason.get<std::string>());
  change.path = GetPath(object, "path");
  change.oldPath = GetPath(object, "old_path");
  change.error = object.value("error", "");
  change.st = StatFromJson(object);
  change.isDir = S_ISDIR(change.st.st_mode);
  return true;
}

void WriteChange(FILE* out, OutputMode mode, const Change& change) {
  if (mode == OutputMode::kText) {
    OutputLine(mode, ChangeText(change), out);
    return;
  }
  if (mode == OutputMode::kJson) {
    OutputLine(mode, JsonLine(ChangeJson(change)), out);
    return;
  }
  std::string record = ChangeKindName(change.kind);
  record += '\t';
  std::string reasons =
      change.kind == ChangeKind::kUnreadable ? change.error : ReasonsText(change.reasons, ",");
  record += reasons.empty() ? "-" : reasons;
  record += '\t';
  record += change.path;
  if (change.kind == ChangeKind::kRenamed) {
    record += '\0';
    record += change.oldPath;
  }
  OutputLine(mode, record, out);
}
