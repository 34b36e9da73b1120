// A recording visitor for the walks of real folders.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "Engine/files/FSVisitor.h"

namespace skerrow_test {

// A visitor that does nothing and always descends.
class NoopFSVisitor : public FSVisitor {
 public:
  void finishVisitOfGroup_atPath(const QSFSVersionArray&, const std::string&) override {}
  void startVisitOfGroup_atPath(const QSFSVersionArray&, const std::string&) override {}
  void finishTraversalOfPath(const std::string&) override {}
  void finishVisitAtPath_attributes(const std::string&, const platform::FileAttributes&) override {}
  bool startVisitAtPath_attributes(const std::string&, const platform::FileAttributes&) override { return true; }
  void startTraversalOfPath(const std::string&) override {}
};

class RecordingFSVisitor : public FSVisitor {
 public:
  std::vector<std::string> calls;
  std::vector<std::pair<std::string, std::vector<std::string>>> groups;  // path, version names
  std::function<bool(const std::string&)> descend = [](const std::string&) { return true; };
  std::function<void(const std::string&)> onStart = [](const std::string&) {};
  std::string root;  // stripped from paths in `calls`

  std::string rel(const std::string& p) const { return p.compare(0, root.size(), root) == 0 ? p.substr(root.size()) : p; }
  void startTraversalOfPath(const std::string& p) override { calls.push_back("begin " + rel(p)); }
  void finishTraversalOfPath(const std::string& p) override { calls.push_back("end " + rel(p)); }
  bool startVisitAtPath_attributes(const std::string& p, const platform::FileAttributes& a) override {
    calls.push_back(std::string(a.isDirectory() ? "dir " : a.isSymbolicLink() ? "link " : "file ") + rel(p));
    onStart(p);
    return descend(p);
  }
  void finishVisitAtPath_attributes(const std::string& p, const platform::FileAttributes&) override {
    calls.push_back("finish " + rel(p));
  }
  void startVisitOfGroup_atPath(const QSFSVersionArray& versions, const std::string& p) override {
    std::vector<std::string> names;
    for (const auto& v : versions) names.push_back(v->fileName());
    groups.emplace_back(rel(p), names);
    calls.push_back("group " + rel(p));
  }
  void finishVisitOfGroup_atPath(const QSFSVersionArray&, const std::string& p) override {
    calls.push_back("end group " + rel(p));
  }
  size_t count(const std::string& call) const { return static_cast<size_t>(std::count(calls.begin(), calls.end(), call)); }
};

}  // namespace skerrow_test
