// Where a debugger finds the library's tables in a stripped library.
//
// Each QV_DEBUG_ENTRY names one table (its address) or one layout fact (a
// number) by a tag of up to seven characters. The entries of every source
// file land in the allocated section "quorvin_debug", which strip keeps
// (it drops only the symbol table and debug sections); tools/gdb/quorvin.py
// finds the section in the loaded library and reads the entries from memory,
// so it needs neither symbols nor calls into the process, and works on core
// files too. The public records' layouts come from the public headers.
#pragma once

#include <cstdint>

namespace quorvin::detail {

struct DebugEntry {
  char tag[8];
  const void* address;  // a table or word of the library, or nullptr
  uint64_t number;      // an offset, size or version
};

}  // namespace quorvin::detail

#define QV_DEBUG_CONCAT2(a, b) a##b
#define QV_DEBUG_CONCAT(a, b) QV_DEBUG_CONCAT2(a, b)
#define QV_DEBUG_ENTRY(tag, address, number)                                                          \
  [[gnu::used, gnu::section("quorvin_debug")]] static constinit ::quorvin::detail::DebugEntry QV_DEBUG_CONCAT( \
      g_debugEntry, __LINE__){tag, address, number}
