// rcmd.h - running commands for the host helpers: the pipe runner, the
// control client call, the double-quote escaping of command texts and the
// remote command dispatcher.
//
// The runners take command lines and arguments as they are: a command line is
// given to the shell whole, so whoever builds it decides what the shell sees.
//
// Thread safety: all functions may be called from any thread; the access
// functions are installed once, before the first i_RCMD.
#ifndef TVU_RUNTIME_RCMD_H
#define TVU_RUNTIME_RCMD_H

#include <cstddef>
#include <cstdint>

#include <string>

#include "platform/platform.h"
#include "tvu_host.h"

namespace korvo {

// Result of a command that was ended because its time-out passed.
constexpr int kTimedOutState = 124;

// Runs `cmdLine` through "/bin/sh -c" in a process group of its own: standard
// input from inFile (the null device when none is named), standard output to
// outFile (created or emptied; discarded when none is named), standard error
// to errFile when one is named, else with standard output.  Waits up to
// timeoutSec seconds (0 or less: without limit); when that time passes the
// command's process group is ended, the result is 124 and the message says
// "timed out after N s".  Returns the exit state (the exit code, or 128 plus
// the signal number when a signal ended the command), or -1 when the command
// could not be started.  msg receives one line on the outcome ("exit status 3",
// "cannot open input file X: ...").
int i_PIPE_OPEN_CMD(const char* cmdLine, const char* inFile, const char* outFile, const char* errFile,
                    int timeoutSec, char* msg, size_t msgSize);

// Runs a prepared process with its streams as given, within timeoutSec
// seconds as i_PIPE_OPEN_CMD does; same result and message.  setup.newGroup
// should be set, so that the end at a time-out reaches what the process started.
int run_process(const pf::ProcessSetup& setup, int timeoutSec, char* msg, size_t msgSize);
// The message for an exit state: "exit status N" or "ended by signal N".
std::string exit_state_text(int state);

// The control client call: runs the control client program "tq_ctrlc" (found
// on PATH) with the arguments
//   -S server -t timeout -l user <options, split at blanks> node command
// (the command is one argument; no shell is involved), with the streams,
// time-out, result and message of i_PIPE_OPEN_CMD.
int ctrlc_lib_call(const char* server, int timeoutSec, const char* user, const char* options, const char* node,
                   const char* command, const char* inFile, const char* outFile, const char* errFile, char* msg,
                   size_t msgSize);

// Copies `in` into out with a backslash put before every character `ch`.
// Returns the length written, or -1 (out left empty) when the result does not
// fit outSize-1 characters.
int szChar2EscapeChar(const char* in, char ch, char* out, size_t outSize);

// ---- remote command dispatcher ---------------------------------------------

// Runs a remote command record in one access mode; the result of the run.
using RcmdAccessFn = int32_t (*)(TVU_RCMD* rec, TVU_TRACE trace);
// Access modes of TVU_RCMD.iAccessMode.
enum RcmdMode : int { kRcmdCtrld = 0, kRcmdRsh = 1, kRcmdSsh = 2, kRcmdTqSsh = 3, kRcmdModes = 4 };
// Installs the function that runs records of `mode`.
void rcmd_set_access(int mode, RcmdAccessFn fn);
// Runs the record's command with the access function of its iAccessMode and
// returns that function's result.  A mode without a function gives -1 and a
// message in the record.  The run is written to the calling thread's program
// log (hostlog.h).
int32_t i_RCMD(TVU_RCMD* rec, TVU_TRACE trace);

}  // namespace korvo

#endif
