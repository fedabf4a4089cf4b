/*
 * quorvin: log streams and the pid-list file.
 */
#ifndef QUORVIN_LX_LOG_H
#define QUORVIN_LX_LOG_H

#include <stdio.h>

#include "lx_status.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The pid-list file: one "Name: <thread>, pid:<kernel tid>" line per started thread. */
#define LX_PID_LIST_PATH "/var/run/velmora/velmora_pid.lst"

/* Streams of the component manager; standard output after RTOS_LogInit. */
QV_API extern FILE* hCM_LogFile;
QV_API extern FILE* hCM_Warning;
QV_API extern FILE* hCM_Error;

QV_API int InitLogFile(const char* pcPath);
QV_API void SaveLogFile(const char* pcPath, const char* pcFormat, ...)
    __attribute__((format(printf, 2, 3)));
QV_API void RTOS_LogInit(void);

#ifdef __cplusplus
}
#endif

#endif /* QUORVIN_LX_LOG_H */
