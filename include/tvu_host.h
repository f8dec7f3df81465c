/*
 * tvu_host.h - the host helpers tvu_con exports for the product's programs:
 * remote commands (over the product's control daemon, rsh, ssh and the
 * product's own ssh transport), asynchronous remote commands, and local
 * process and file helpers.  The consolidation itself does not use them.
 *
 * Conventions
 *  - C linkage, x86-64.  Records are laid out as below (the sizes are fixed:
 *    TVU_TRACE 4100 bytes, TVU_RCMD 23128 bytes); strings are NUL-terminated
 *    narrow strings.
 *  - Trace context: every remote command function takes a copy of the
 *    caller's trace settings.  Lines are appended to szTraceFile (nothing when
 *    it is empty) when iTraceLevel is 1 or more; a few details only from 2.
 *  - Programs are found on PATH: a site (or a test) may put its own rsh, ssh,
 *    tq_ssh and tq_ctrlc first.
 *  - Configuration: the product INI file named by the environment variable
 *    TQ_INI ("[pathes]" gv_ctrlc_old, gv_rw_ini; "[CTRLD_Server]"
 *    CTRLD_Port).  Protocol lines go to the file TQ_PROT_FILE names.
 *
 * Trust boundary
 *  The remote command functions put the record's fields into a command line
 *  as the templates below show and hand the line to "/bin/sh -c".  They do not
 *  quote or check the node, user, access options or command: a field holding
 *  shell syntax (";", "$(...)", quotes) is interpreted by the local shell.
 *  Fill the record only from the product's own configuration and from
 *  commands the caller means to run; never from text an outside party chose.
 *  The one exception is the control client call (gv_ctrlc_old not "1"),
 *  which starts tq_ctrlc directly, the command as one argument.
 */
#ifndef TVU_HOST_H
#define TVU_HOST_H

#include <stddef.h>
#include <stdint.h>

#include "tvu_con.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct TVU_TRACE {
  int32_t iTraceLevel;     /* 0 none, 1 errors and steps, 2 details */
  char szTraceFile[4096];  /* lines are appended here; "" for none */
} TVU_TRACE;               /* passed by value */

typedef struct TVU_RCMD {
  char szNode[256];            /* remote host */
  char szPlatform[64];         /* client platform; "WNT" and "Windows" mean Windows */
  char szAccessOptions[1024];  /* extra options of the access mode */
  char szUser[256];            /* remote user */
  char szCommand[8192];        /* command to run remotely */
  char szInFile[4096];         /* standard input of the command ("" none) */
  char szOutFile[4096];        /* standard output (and error) of the command */
  char szErrFile[4096];        /* standard error when iSeparateErr is 1 */
  int32_t iTimeout;            /* seconds, 0 = none */
  char szMsg[1024];            /* receives the result message */
  int32_t iSeparateErr;        /* 1: stderr goes to szErrFile */
  int32_t iAccessMode;         /* for i_RCMD: 0 control daemon, 1 rsh, 2 ssh, 3 product ssh */
  void *hThread;               /* set by i_ASYNC_RCMD, cleared by i_RCMD_GetExit */
} TVU_RCMD;

/* The control daemon's port when "CTRLD_Port" of "[CTRLD_Server]" is missing or 0. */
#define TVU_CTRLD_DEFAULT_PORT 11301
/* Result of a command ended because its time-out passed. */
#define TVU_RCMD_TIMED_OUT 124

/* ---- remote commands ----------------------------------------------------
 * Each builds one command line (at most 8191 characters; a longer one is not
 * run: result -1 and a message) and runs it through "/bin/sh -c" with
 * standard input from szInFile, standard output to szOutFile, standard error
 * to szErrFile when iSeparateErr is 1, else with standard output, within
 * iTimeout seconds (when it passes, the command's process group is ended, the
 * result is 124 and szMsg says "timed out after N s").  The result is the
 * command's exit state (128 + N for a command ended by signal N, -1 when it
 * could not be started); szMsg receives a one-line message.
 *
 * iRshAccess:   rsh -l USER OPTIONS NODE 'COMMAND'  (Windows clients), else
 *   rsh -l USER OPTIONS NODE '. /etc/korvo2000.ini;set -f;LD_LIBRARY_PATH=$TQ_BIN_KORVO
 *     PATH=$PATH:$TQ_BIN_KORVO:$TQ_BIN_TQS COMMAND'
 * iSshAccess:   ssh -l USER OPTIONS NODE "COMMAND" (Windows clients), else the
 *   environment-loading form as for rsh, in double quotes and with
 *   $TQ_VAR_BIN on the path; every " of the command gets a backslash.  The
 *   double quotes let the local shell expand $ and ` in the whole text.
 * iTqSshAccess: tq_ssh -l USER OPTIONS NODE COMMAND, or, for options
 *   "use_ssh REST": ssh -p 11322 -i "GV_RW_INI/tq_ssh/ssh_server_rsa.key"
 *   -l USER REST NODE COMMAND.
 * iCtrldAccess: the product's control client with the port from the product
 *   INI or the options' "-p N"; "[pathes]" gv_ctrlc_old=1 selects the shell
 *   line "tq_ctrlc -S NODE -p PORT OPTIONS [-t TIMEOUT] -l USER NODE COMMAND
 *   [2>&1]", anything else the direct start of tq_ctrlc with the arguments
 *   -S NODE -t TIMEOUT -l USER -p PORT OPTIONS NODE COMMAND.  An exit state of
 *   240 or more puts the first 255 bytes of szErrFile into szMsg.
 */
TVU_EXPORT int32_t iRshAccess(TVU_RCMD *rec, TVU_TRACE trace);
TVU_EXPORT int32_t iSshAccess(TVU_RCMD *rec, TVU_TRACE trace);
TVU_EXPORT int32_t iTqSshAccess(TVU_RCMD *rec, TVU_TRACE trace);
TVU_EXPORT int32_t iCtrldAccess(TVU_RCMD *rec, TVU_TRACE trace);

/* Starts a thread that runs the record's command (on its own copy of the
 * record) in access mode iAccessMode; its program log is "tq_client.lgc"
 * beside the trace file (in the working folder without one).  Returns 0 with
 * hThread set and szMsg "-TID" (the thread's id), or 2 with the system's text
 * in szMsg when no thread could be started. */
TVU_EXPORT int32_t i_ASYNC_RCMD(TVU_RCMD *rec, TVU_TRACE trace);
/* Polls the thread of i_ASYNC_RCMD without waiting: 1 finished (*exitCode is
 * the command's result; hThread is cleared), 0 still running, -1 no thread
 * (hThread null, or a handle this module does not know; hThread is cleared).
 * *exitCode is 0 unless the result is 1.  A handle that is never polled to
 * its end keeps the thread's resources, as an unclosed handle does. */
TVU_EXPORT int32_t i_RCMD_GetExit(TVU_RCMD *rec, int32_t *exitCode, TVU_TRACE trace);

/* ---- local processes ----------------------------------------------------
 * Command lines run through "/bin/sh -c" (cmd.exe /c on Windows) in a process
 * group of their own (a job object on Windows).  Results: as noted; an "OS
 * error" is errno here and GetLastError() on Windows.
 */
/* Starts the line without waiting; standard input from the null device,
 * output and errors appended to szOutFile (discarded when null or "").
 * *piPid receives the process id.  0 or an OS error.  The process stays a
 * child of the caller: pid_exist or the caller's own wait collects it. */
TVU_EXPORT int32_t start_proc(const char *szCmdLine, const char *szOutFile, int32_t *piPid);
/* Runs the line with the caller's standard streams and waits up to iTimeout
 * seconds (0 none).  Returns its exit state, 124 when the time-out passed
 * (the group is ended), -1 when it could not be started; szMsg (may be null)
 * receives a one-line message. */
TVU_EXPORT int32_t start_system(const char *szCmdLine, int32_t iTimeout, char *szMsg, int32_t iMsgSize);
/* As start_system, but standard output and errors go both to the caller's
 * standard output and to the end of szTeeFile (created when missing). */
TVU_EXPORT int32_t start_system_tee(const char *szCmdLine, const char *szTeeFile, int32_t iTimeout, char *szMsg,
                                    int32_t iMsgSize);
/* 1 when a process with this id exists, else 0 (also for ids <= 0).  A
 * finished child of the caller is collected and counts as gone. */
TVU_EXPORT int32_t pid_exist(int32_t iPid);
/* Ends the process with this id, that process alone: asks it to end, and
 * after 3 s ends it by force (Windows: TerminateProcess at once).  0 when it
 * is gone, EINVAL for ids <= 0 and the caller's own id, ESRCH when there is
 * no such process, ETIMEDOUT when it outlives the forced end, or an OS error. */
TVU_EXPORT int32_t i_KILL_TVU(int32_t iPid);

/* ---- local files --------------------------------------------------------
 * Results: 0 or an OS error.
 */
/* Copies szFrom to szTo through a temporary file beside szTo that is renamed
 * into place: szTo is either the old file or the whole copy, never a part;
 * on failure the temporary file is removed.  The copy gets szFrom's
 * permission bits.  (Windows: MoveFileEx with MOVEFILE_REPLACE_EXISTING.) */
TVU_EXPORT int32_t file_copy(const char *szFrom, const char *szTo);
/* Appends the bytes of szFrom to szTo (created when missing).  When it fails
 * part-way, szTo is cut back to its former size. */
TVU_EXPORT int32_t file_append(const char *szFrom, const char *szTo);
/* The working folder, without a trailing separator; ERANGE when it does not
 * fit iDirSize-1 characters (szDir is then ""). */
TVU_EXPORT int32_t i_GET_DIR(char *szDir, int32_t iDirSize);
/* Creates a folder and its missing parents; 0 when the folder exists
 * already, ENOTDIR when a file is in the way. */
TVU_EXPORT int32_t i_MKDIR(const char *szPath);
/* Sets the label of the file system mounted at szVolume (Windows: of the
 * volume "C:\", SetVolumeLabel).  Linux sets it while mounted only for file
 * systems that support it, with the right to administer them; otherwise the
 * result is an OS error and szMsg (may be null) says why. */
TVU_EXPORT int32_t i_SET_VOLUME_LABEL(const char *szVolume, const char *szLabel, char *szMsg, int32_t iMsgSize);
/* 1 when szPath is a regular file the caller may execute, else 0 (Windows:
 * an existing file whose extension is .exe, .com, .bat or .cmd). */
TVU_EXPORT int32_t bIsFileExecutable(const char *szPath);

#ifdef __cplusplus
}
#endif

#endif
