/* The entries of the in-process SQL library "kzqsqld" (kzqsqld.dll on
 * Windows, libkzqsqld.so on POSIX) that serves the agent's own "kzqsql"
 * command. Plain C, so that a library in any language can provide them. */
#ifndef KVC_KZQSQLD_H
#define KVC_KZQSQLD_H

#ifdef __cplusplus
extern "C" {
#endif

/* The agent's debug flag and its ten debug levels. */
typedef void (*kzqsqld_set_debug_levels)(int debug_flag, const unsigned short* levels, int count);

/* Runs `request` against the server named by `host` and `server_id` as
 * `logon`/`password` (empty texts when not configured) and writes its
 * output lines to the file `output_path`. 0 on success. */
typedef int (*kzqsqld_exec_sql_request)(const char* request, const char* output_path, const char* host,
                                        const char* server_id, const char* logon, const char* password);

#ifdef __cplusplus
}
#endif

#endif
