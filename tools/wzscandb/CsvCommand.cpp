// csv: every record of the table as one CSV record (RFC 4180), in the table's
// physical order, with full values: the path, 64-bit sizes and times with
// nanoseconds. (The library's own toCSV form is what `record` shows.)
#include <cstdio>
#include <cstring>
#include <memory>

#include <CLI/CLI.hpp>

#include "Commands.h"
#include "Csv.h"
#include "DatabaseCommand.h"
#include "EntryJson.h"
#include "PathResolver.h"
#include "TableReader.h"
#include "ToolError.h"
#include "WzScanDB/records/BackupTimeRecord.h"
#include "WzScanDB/records/WzScanDBKeyGUID.h"
#include "lustre/CLustreFID.h"

namespace {

const std::vector<std::string> kTreeHeader = {"path", "kind", "size", "mtime", "mtime_nsec",
                                              "ctime", "ctime_nsec", "inode", "dev", "ref",
                                              "id", "parent_id"};
const std::vector<std::string> kBackupTimeHeader = {"inode", "ctime"};

// The text form of an identifier: the GUID's "0x..." or the FID's "[0x..:0x..:0x..]".
std::string KeyText(RecordType type, std::string_view key) {
  if (type == RecordType::kGeneric) {
    WzScanDBKeyGUID guid;
    std::memcpy(guid.data(), key.data(), key.size());
    return guid.toString();
  }
  LustreAPI::CLustreFID fid;
  LustreAPI::lu_fid raw;
  std::memcpy(&raw, key.data() + 8, sizeof(raw));
  fid = raw;
  return fid.toString();
}

void WriteRecord(OutputMode mode, const std::vector<std::string>& fields) {
  std::string record = CsvRecord(fields);
  if (mode == OutputMode::kNull) {
    OutputLine(mode, record);
  } else {
    record += "\r\n";
    std::fwrite(record.data(), 1, record.size(), stdout);
  }
}

int RunCsv(const DatabaseArguments& args) {
  ScanDatabase database(args.directory, args.type, ScanDatabase::Mode::kReadOnly);
  if (!HasTree(args.type)) {
    if (args.output != OutputMode::kJson) WriteRecord(args.output, kBackupTimeHeader);
    ForEachTableRecord(database.db(), sizeof(SBackupTimeRecordStructure), [&](const char* image) {
      SBackupTimeRecordStructure fields;
      std::memcpy(&fields, image, sizeof(fields));
      if (args.output == OutputMode::kJson)
        OutputLine(args.output, JsonLine({{"inode", fields.inode}, {"ctime", fields.ctime}}));
      else
        WriteRecord(args.output, {std::to_string(fields.inode), std::to_string(fields.ctime)});
    });
    database.Close();
    return kExitOk;
  }

  TableReader reader(database);
  PathResolver resolver(reader);
  if (args.output != OutputMode::kJson) WriteRecord(args.output, kTreeHeader);
  std::string path;
  reader.ForEachRecord([&](const char* image) {
    ImageView record(reader.layout(), image);
    resolver.PathOf(image, path);
    struct stat st = record.stat();
    std::string id = KeyText(args.type, record.key());
    std::string parent = KeyText(args.type, record.parentKey());
    if (args.output == OutputMode::kJson) {
      nlohmann::json object = EntryJson(path, st, record.isDir(), record.ref());
      object["id"] = id;
      object["parent_id"] = parent;
      OutputLine(args.output, JsonLine(object));
      return;
    }
    WriteRecord(args.output,
                {path, KindName(st, record.isDir()), std::to_string(st.st_size),
                 std::to_string(st.st_mtim.tv_sec), std::to_string(st.st_mtim.tv_nsec),
                 std::to_string(st.st_ctim.tv_sec), std::to_string(st.st_ctim.tv_nsec),
                 std::to_string(st.st_ino), std::to_string(st.st_dev), std::to_string(record.ref()),
                 id, parent});
  });
  database.Close();
  return kExitOk;
}

}  // namespace

void AddCsvCommand(CLI::App& app, CommandTable& table) {
  auto csv = std::make_shared<DatabaseArguments>();
  CLI::App* command = AddDatabaseCommand(
      app, "csv",
      "Print every record as CSV (RFC 4180: quoted where needed, CRLF line ends), header "
      "first: path, kind, size, times with nanoseconds, inode, device, reference time, "
      "identifiers",
      *csv);
  AddOutputOptions(command, csv->output);
  table[command] = [csv] { return RunCsv(*csv); };
}
