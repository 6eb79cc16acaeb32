#pragma once
/// @file
/// A hub's page: its devices and how it stands with them, what happens, what happened, and the sinks with what waits;
/// the same as JSON (docs/web-api.md). It only shows: nothing here changes anything.
#include "hub/hub.h"
#include "platform/lock.h"
#include "web/web_events.h"

#include <condition_variable>
#include <memory>
#include <string>
#include <thread>

class CWebServer;
struct WebRequest;
struct WebReply;

/// The page, and the thread that brings new events to those who watch.
class CHubWeb {
public:
    /// The hub has been started with this journal, and outlives the object.
    CHubWeb(HubListenSettings const &settings, std::string strJournal, CHub &hub);
    ~CHubWeb(); ///< ends all requests
    CHubWeb(CHubWeb const &) = delete;
    CHubWeb &operator=(CHubWeb const &) = delete;

    /// Begins to listen; once. False with the reason in one line.
    bool Start(std::string *pstrError);
    std::string Url() const; ///< after Start: http://ADDRESS:PORT/

private:
    WebReply Status();
    WebReply Devices(WebRequest const &request);
    WebReply Events(WebRequest const &request);
    void Watch();
    bool Pause();

    CHub &m_hub;
    std::string const m_strJournal;
    std::unique_ptr<CJournal> m_pJournal; // to search in: whoever looks for long holds up no writer
    CWebEvents m_events;
    std::unique_ptr<CWebServer> const m_pServer;
    CPlatMutex m_mutex; // a leaf
    std::condition_variable m_cv;
    bool m_bEnding PLAT_GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};
