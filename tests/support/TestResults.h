// Figures that measuring tests leave for the reports: each test writes one
// JSON value into the build tree (<build dir>/results/<group>/<name>.json),
// never into a tracked file. scripts/render-reports.py merges the files of
// a group into <build dir>/reports/<group>.json and renders the Markdown
// reports beside them.
#ifndef IPC_DB_TESTS_SUPPORT_TESTRESULTS_H_
#define IPC_DB_TESTS_SUPPORT_TESTRESULTS_H_

#include <string>
#include <vector>

namespace ipc_db_test {

// Builds the text of one JSON object, members in the order they are added.
// Keys and string values are escaped; numbers are written as given.
class JsonObject {
 public:
  JsonObject& Add(const std::string& key, long long value);
  JsonObject& Add(const std::string& key, unsigned long long value);
  JsonObject& Add(const std::string& key, int value) {
    return Add(key, static_cast<long long>(value));
  }
  JsonObject& Add(const std::string& key, double value);
  JsonObject& Add(const std::string& key, bool value);
  JsonObject& Add(const std::string& key, const std::string& value);
  JsonObject& Add(const std::string& key, const char* value) {
    return Add(key, std::string(value));
  }
  // Adds `json`, which must already be JSON text (an object, a list, ...).
  JsonObject& AddRaw(const std::string& key, const std::string& json);
  std::string Text() const;

 private:
  void AddMember(const std::string& key, const std::string& json);
  std::string members_;
};

// "[a,b,...]" of values that are already JSON text.
std::string JsonList(const std::vector<std::string>& items);

// `text` as a quoted, escaped JSON string.
std::string JsonString(const std::string& text);

// `text` made fit for a result file name: every character other than a
// letter, a digit, '-' or '_' becomes '_' ("keyed file, other key" ->
// "keyed_file__other_key").
std::string ResultName(const std::string& text);

// The build tree's results directory (<build dir>/results).
std::string ResultsDir();

// Writes `json` to <build dir>/results/<group>/<name>.json, replacing an
// earlier file of that name, creating the directories as needed. Adds a
// gtest failure and returns false when the file cannot be written.
bool WriteResultJson(const std::string& group, const std::string& name,
                     const std::string& json);

}  // namespace ipc_db_test

#endif  // IPC_DB_TESTS_SUPPORT_TESTRESULTS_H_
