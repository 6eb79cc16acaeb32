#pragma once
/// @file
/// Commands for a running mfpsim from scripts: a socket at which callers give them a line each. To every
/// line come the lines of its answer, and at last "ok" or "error: REASON".

#include "devlink/link_stream.h"
#include "tools/mfpsim_commands.h"

#include <atomic>
#include <list>
#include <memory>
#include <string>
#include <thread>

/// The device's end of it.
class CControlSocket {
public:
    explicit CControlSocket(CSimulation &simulation) : m_simulation(simulation) {}
    /// Ends all calls; after CSimulation::Quit, so that none waits. Takes the socket's file away.
    ~CControlSocket();
    CControlSocket(CControlSocket const &) = delete;
    CControlSocket &operator=(CControlSocket const &) = delete;

    /// Begins to listen. False with the reason in one line.
    bool Start(std::string const &strPath, std::string *pstrError);

private:
    struct Call {
        explicit Call(SOCKET s) : socket(s) {}
        CLinkSocket socket;
        std::atomic<bool> fFinished{false};
        std::thread thread;
    };

    void Accept();
    void Serve(Call &call);
    bool Answer(Call &call, CCommandSession &session, std::string const &strLine);

    CSimulation &m_simulation;
    CSocketLibrary m_library;
    std::string m_strPath;
    CLinkSocket m_listener;
    std::atomic<bool> m_fEnding{false};
    std::thread m_thread;
    std::list<Call> m_calls; // the accepting thread's, and the destructor's after it
};

/// A script's end of it: gives one command to the program that listens at the path and prints the answer,
/// an error on the standard error. Whether it was carried out.
bool TellSimulation(std::string const &strPath, std::string const &strCommand);
