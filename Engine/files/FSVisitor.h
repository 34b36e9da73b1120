// The receiver of a walk of real folders (FSSourceTraversal,
// FSDestinationTraversal).  Attributes are read without following links.
#pragma once

#include <string>

#include "Engine/files/QSFSVersion.h"
#include "platform/FileAttributes.h"

class FSVisitor {
 public:
  virtual ~FSVisitor() = default;
  // A group of stored copies of one file (destination walk), after startVisitOfGroup.
  virtual void finishVisitOfGroup_atPath(const QSFSVersionArray& versions, const std::string& path) = 0;
  virtual void startVisitOfGroup_atPath(const QSFSVersionArray& versions, const std::string& path) = 0;
  virtual void finishTraversalOfPath(const std::string& path) = 0;
  virtual void finishVisitAtPath_attributes(const std::string& path, const platform::FileAttributes& attributes) = 0;
  // For a folder, false means: do not descend.  The answer is ignored for files.
  virtual bool startVisitAtPath_attributes(const std::string& path, const platform::FileAttributes& attributes) = 0;
  virtual void startTraversalOfPath(const std::string& path) = 0;
};
