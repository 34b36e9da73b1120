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
  // Makes every block of 256 KiB or more a mapping of its own, given back to
  // the system as soon as it is freed.  (glibc otherwise raises that size
  // each time such a block is freed, and large arrays that come and go at
  // each backup end up in the heap between long-lived objects, where their
  // pages cannot be given back.)  Call once, at start.
  static void keepLargeBlocksApart();
};

}  // namespace platform
