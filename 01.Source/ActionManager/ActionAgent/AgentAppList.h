// The agent's own copy of the interaction apps that the service has announced: inserted and
// removed by app change events on the dispatch thread, cleared at registration and on a loss of
// the service, read by app threads. One mutex serialises every operation but size() and empty().
// The list owns its entries (copies of the records).
//
// Keys order by an OR of three tests (nType, nAppID, IPv4), not lexicographically, so two keys
// can each be less than the other. That ordering decides which entries count as equal and in
// which order the list is returned, and it is kept on purpose; std::map requires a strict weak
// ordering, so the list keeps its own binary tree and descends it the one documented way.
#ifndef PELK_AGENT_AGENTAPPLIST_H
#define PELK_AGENT_AGENTAPPLIST_H

#include <pthread.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "ActionManager/Struct.h"

namespace PELK {
namespace Agent {

// The key an app is filed under: the shape of an InteractionApp, with only nType, nAppID and
// szIPv4 taking part in the ordering. Texts are cut to 259, 15 and 17 characters.
struct AppElem {
    char szAppName[260] = {};
    int32_t nAppID = 0;
    int32_t nType = 0;
    char szIPv4[16] = {};
    char szMacAddress[18] = {};
    uint8_t fLocalDevice = 0;

    AppElem() = default;
    explicit AppElem(const InteractionApp& app);
    AppElem(const char* ipv4, int type, int appID);

    // True when any one of nType, nAppID (both signed) or the bytes of szIPv4 is less.
    bool operator<(const AppElem& other) const;
};

class AgentAppList {
public:
    AgentAppList();
    ~AgentAppList();
    AgentAppList(const AgentAppList&) = delete;
    AgentAppList& operator=(const AgentAppList&) = delete;

    // Files app under its key; an entry under an equal key is replaced.
    void insert(const InteractionApp& app);
    // 1 when an equal key is stored, else 0.
    int exist(const AppElem& key);
    int exist(const InteractionApp& app);
    int exist(const char* ipv4, int type, int appID);
    void remove(const AppElem& key);
    void remove(const InteractionApp& app);
    void remove(const char* ipv4, int type, int appID);
    // On a hit copies the stored record into *app (texts terminated) and returns 1; else 0.
    int get(const char* ipv4, int type, int appID, InteractionApp* app);
    // Appends every stored record, in key order, to apps (which is not emptied first).
    void getAppList(std::vector<InteractionApp>& apps);
    // Read without the lock: may be one change behind.
    size_t size() const { return m_nCount.load(); }
    bool empty() const { return size() == 0; }
    void clear();

    int lock();
    int unlock();

private:
    struct Node;

    // The stored node whose key equals key, or null: descends as described in the file comment.
    Node* find(const AppElem& key) const;
    void erase(Node* node);
    static void destroy(Node* node);

    Node* m_pRoot;
    std::atomic<size_t> m_nCount;
    pthread_mutex_t m_mutex;
};

}  // namespace Agent
}  // namespace PELK

#endif  // PELK_AGENT_AGENTAPPLIST_H
