// The process's heap as the operating system sees it.
#pragma once

namespace platform {

class Memory {
 public:
  // Gives the pages the heap holds free back to the system (glibc keeps
  // freed memory for reuse, so after a large transient structure is gone
  // the process would otherwise stay as large as at its peak).  Costs a
  // walk of the heap's free lists: call it after large work, not often.
  static void releaseFreedMemory();
};

}  // namespace platform
