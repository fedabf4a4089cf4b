// Log streams and the pid-list file.
//
// SaveLogFile opens, appends and closes on every call and takes no lock: each
// line is one short fputs on a file opened for appending, so lines of threads
// that start together never tear, they only come in no fixed order.
#include <cstdarg>
#include <cstdio>

#include "cm/cm_internal.h"
#include "quorvin/lx_log.h"

// Standard output from load time on, so that a message written before
// RTOS_LogInit still has a stream.
FILE* hCM_LogFile = stdout;
FILE* hCM_Warning = stdout;
FILE* hCM_Error = stdout;

int InitLogFile(const char* pcPath) {
  FILE* file = std::fopen(pcPath, "w+e");
  if (file == nullptr) {
    std::perror(pcPath);
    return 1;
  }
  std::fclose(file);
  return 0;
}

void SaveLogFile(const char* pcPath, const char* pcFormat, ...) {
  // Opening, writing and closing are cancellation points: a thread terminated
  // right after its creation, while it writes its pid-list line, would leave
  // the file open for good. It is cancelled once the line is written.
  quorvin::detail::NoCancelScope noCancel;
  FILE* file = std::fopen(pcPath, "ae");
  if (file == nullptr) {
    std::perror(pcPath);
    return;
  }
  char line[1024];
  va_list args;
  va_start(args, pcFormat);
  std::vsnprintf(line, sizeof line, pcFormat, args);
  va_end(args);
  std::fputs(line, file);
  std::fclose(file);
}

void RTOS_LogInit(void) {
  InitLogFile(LX_PID_LIST_PATH);
  hCM_Error = stdout;
  hCM_Warning = stdout;
  hCM_LogFile = stdout;
}
