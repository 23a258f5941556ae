// JSON text for measured figures and the build-tree files that hold them.
#include "TestResults.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>

#ifndef IPC_DB_TEST_RESULTS_DIR
#error "IPC_DB_TEST_RESULTS_DIR must name the build tree's results directory"
#endif

namespace ipc_db_test {

std::string JsonString(const std::string& text) {
  std::string out = "\"";
  for (unsigned char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
          out += escaped;
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  return out + "\"";
}

std::string JsonList(const std::vector<std::string>& items) {
  std::string out = "[";
  for (size_t i = 0; i < items.size(); ++i) {
    if (i != 0) out += ",";
    out += items[i];
  }
  return out + "]";
}

void JsonObject::AddMember(const std::string& key, const std::string& json) {
  if (!members_.empty()) members_ += ",";
  members_ += JsonString(key) + ":" + json;
}

JsonObject& JsonObject::Add(const std::string& key, long long value) {
  AddMember(key, std::to_string(value));
  return *this;
}

JsonObject& JsonObject::Add(const std::string& key, unsigned long long value) {
  AddMember(key, std::to_string(value));
  return *this;
}

JsonObject& JsonObject::Add(const std::string& key, double value) {
  if (!std::isfinite(value)) {
    AddMember(key, "null");  // JSON has no NaN or infinity
    return *this;
  }
  char text[40];
  std::snprintf(text, sizeof(text), "%.6g", value);
  AddMember(key, text);
  return *this;
}

JsonObject& JsonObject::Add(const std::string& key, bool value) {
  AddMember(key, value ? "true" : "false");
  return *this;
}

JsonObject& JsonObject::Add(const std::string& key, const std::string& value) {
  AddMember(key, JsonString(value));
  return *this;
}

JsonObject& JsonObject::AddRaw(const std::string& key, const std::string& json) {
  AddMember(key, json);
  return *this;
}

std::string JsonObject::Text() const { return "{" + members_ + "}"; }

std::string ResultName(const std::string& text) {
  std::string name = text;
  for (char& c : name) {
    if (!std::isalnum(static_cast<unsigned char>(c)) && c != '-' && c != '_') c = '_';
  }
  return name;
}

std::string ResultsDir() { return IPC_DB_TEST_RESULTS_DIR; }

bool WriteResultJson(const std::string& group, const std::string& name,
                     const std::string& json) {
  std::filesystem::path dir = std::filesystem::path(ResultsDir()) / group;
  std::error_code error;
  std::filesystem::create_directories(dir, error);
  std::filesystem::path file = dir / (name + ".json");
  std::ofstream out(file, std::ios::trunc);
  out << json << "\n";
  out.close();
  if (!out) {
    ADD_FAILURE() << "cannot write the result file " << file.string();
    return false;
  }
  return true;
}

}  // namespace ipc_db_test
