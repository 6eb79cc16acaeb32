#pragma once
/*
 * Who shares what among agents that were copied, so that each link, thread, socket and mutex is ended
 * once, by its owner, and no agent goes on using what its owner has ended.
 *
 * The record is kept beside the agents, in one list for all of them, and is empty as long as nobody
 * copies an agent. It has a lock of its own, which is taken under agents' mutexes or without them and
 * held for a walk through the list.
 */
#include "agent/QOMANoAg.h"

class CAgentShares {
public:
    /*
     * Copies every field of source to target and makes note that target borrows. target holds neither
     * link nor mutex. No other thread is inside either agent.
     */
    static void Copy(CNotifyAgent &target, CNotifyAgent const &source);

    /* If agent borrows its link: lets go of it, without ending anything, and returns true. */
    static bool LetGo(CNotifyAgent &agent);

    /* Lets every agent that borrows owner's link go of it. Called before owner ends its link. */
    static void DetachBorrowers(CNotifyAgent &owner);

    /* agent gives up its mutex for good: forgets it, and says whether nobody else has that mutex. */
    static bool IsLastOf(CNotifyAgent const &agent);

private:
    struct ShareType;
    static ShareType *Find(CNotifyAgent const &agent);
    static bool Note(CNotifyAgent &target, CNotifyAgent const &source);
    static void CopyTexts(CNotifyAgent &target, CNotifyAgent const &source);
    static void ForgetLink(CNotifyAgent &agent);

    static ShareType *s_pFirst;
};
