#pragma once

/// @file
/// How a host, a program that uses the system, switches diagnostics on and off. A host does this:
///
///     PlatSetRegistryFile("example.reg");     // where the settings stand, if not at the usual place
///     GInstallEvtMgr("MyModule");             // from here on every diagnostic site reports
///     TdConnect();                            // only if lines are wanted in the trace viewer (g_trace.h)
///     ... agents come, work and go; LoadParameters() whenever the settings have changed ...
///     GRemoveEvtMgr("MyModule");              // ends diagnostics; the log gets the final report
///
/// When may GRemoveEvtMgr be called? A site takes no lock: it loads g_pEvtMgr, tests what is behind it
/// and reports, and nothing could hold a thread back that has loaded the pointer already. So the host
/// first ends whatever can reach a site on another thread: it shuts down and deletes its agents (Shutdown
/// returns when their workers have ended) and joins threads of its own that use the foundation or call
/// LoadParameters. It then removes the manager on the one thread that is left. What that thread's own
/// objects report of their end still passes through the manager, and g_pEvtMgr becomes null last.

#include "platform/base.h"

/// Makes a manager and, once it is ready, lets every diagnostic site of the process report through it.
/// Not while another thread runs GInstallEvtMgr or GRemoveEvtMgr.
/// @param pszName the manager's key below Modules, copied; not null and not empty.
/// @return eGE_OK; eGE_NULL_ARGUMENT without a name; eGE_BAD_STATE when a manager is installed already;
/// eGE_OUT_OF_MEMORY, also when the manager could have no handler at all. Except with eGE_OK nothing has
/// changed.
DWORD GInstallEvtMgr(char const *pszName);

/// Removes the installed manager and writes the final report: what the process still holds. A second
/// call, or one without an installed manager, does nothing. REQUIRES: see above.
/// @param pszName the name that it was installed with. @return eGE_OK, eGE_NULL_ARGUMENT without a name.
DWORD GRemoveEvtMgr(char const *pszName);
