#include "AgentAppList.h"

#include <cstring>
#include <new>

#include "CommonLib/OSAL.h"
#include "CommonLib/ZTLogger.h"

namespace PELK {
namespace Agent {

using Common::OSAbstractLayer;

namespace {

// The list's mutex for one scope, through lock()/unlock() so that failures are logged.
class ListGuard {
public:
    explicit ListGuard(AgentAppList& list) : m_list(list) { m_list.lock(); }
    ~ListGuard() { m_list.unlock(); }
    ListGuard(const ListGuard&) = delete;
    ListGuard& operator=(const ListGuard&) = delete;

private:
    AgentAppList& m_list;
};

}  // namespace

struct AgentAppList::Node {
    AppElem key;
    InteractionApp app;
    Node* pLeft = nullptr;
    Node* pRight = nullptr;
    Node* pParent = nullptr;
};

AppElem::AppElem(const InteractionApp& app) : nAppID(app.nAppID), nType(app.nType), fLocalDevice(app.fLocalDevice) {
    Wire::CopyText(szAppName, app.szAppName);
    Wire::CopyText(szIPv4, app.szIPv4);
    Wire::CopyText(szMacAddress, app.szMacAddress);
}

AppElem::AppElem(const char* ipv4, int type, int appID) : nAppID(appID), nType(type) {
    Wire::CopyText(szIPv4, ipv4);
}

bool AppElem::operator<(const AppElem& other) const {
    // An OR of three tests: no field takes precedence over another. Deliberate.
    return nType < other.nType || nAppID < other.nAppID || memcmp(szIPv4, other.szIPv4, sizeof(szIPv4)) < 0;
}

AgentAppList::AgentAppList() : m_pRoot(nullptr), m_nCount(0) {
    OSAbstractLayer::osal_init_mutex(&m_mutex);
}

AgentAppList::~AgentAppList() {
    clear();
    OSAbstractLayer::osal_destroy_mutex(&m_mutex);
}

int AgentAppList::lock() {
    const int result = OSAbstractLayer::osal_lock_mutex(&m_mutex);
    if (result != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Cannot lock app list, return:%d", result);
    }
    return result;
}

int AgentAppList::unlock() {
    const int result = OSAbstractLayer::osal_unlock_mutex(&m_mutex);
    if (result != 0) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Cannot unlock app list, return:%d", result);
    }
    return result;
}

AgentAppList::Node* AgentAppList::find(const AppElem& key) const {
    // A node not less than the key becomes the candidate and the search goes left; otherwise it
    // goes right. The candidate is a hit when the key is not less than it either.
    Node* candidate = nullptr;
    for (Node* node = m_pRoot; node != nullptr;) {
        if (!(node->key < key)) {
            candidate = node;
            node = node->pLeft;
        } else {
            node = node->pRight;
        }
    }
    return candidate != nullptr && !(key < candidate->key) ? candidate : nullptr;
}

void AgentAppList::insert(const InteractionApp& app) {
    const AppElem key(app);
    ListGuard guard(*this);
    if (Node* existing = find(key)) {
        existing->key = key;
        existing->app = app;
        return;
    }
    Node* node = new (std::nothrow) Node;
    if (node == nullptr) {
        ZT_LOG(Common::ZT_LOG_ERROR, "Out of memory!");
        return;
    }
    node->key = key;
    node->app = app;
    Node** link = &m_pRoot;
    while (*link != nullptr) {
        node->pParent = *link;
        link = key < (*link)->key ? &(*link)->pLeft : &(*link)->pRight;
    }
    *link = node;
    ++m_nCount;
}

int AgentAppList::exist(const AppElem& key) {
    ListGuard guard(*this);
    return find(key) != nullptr ? 1 : 0;
}

int AgentAppList::exist(const InteractionApp& app) {
    return exist(AppElem(app));
}

int AgentAppList::exist(const char* ipv4, int type, int appID) {
    return exist(AppElem(ipv4, type, appID));
}

void AgentAppList::remove(const AppElem& key) {
    ListGuard guard(*this);
    if (Node* node = find(key)) {
        erase(node);
    }
}

void AgentAppList::remove(const InteractionApp& app) {
    remove(AppElem(app));
}

void AgentAppList::remove(const char* ipv4, int type, int appID) {
    remove(AppElem(ipv4, type, appID));
}

int AgentAppList::get(const char* ipv4, int type, int appID, InteractionApp* app) {
    const AppElem key(ipv4, type, appID);
    ListGuard guard(*this);
    const Node* node = find(key);
    if (node == nullptr || app == nullptr) {
        return 0;
    }
    app->SetAppName(node->app.szAppName);
    app->SetIPv4(node->app.szIPv4);
    app->SetMacAddress(node->app.szMacAddress);
    app->nAppID = node->app.nAppID;
    app->nType = node->app.nType;
    app->fLocalDevice = node->app.fLocalDevice;
    return 1;
}

void AgentAppList::getAppList(std::vector<InteractionApp>& apps) {
    ListGuard guard(*this);
    // In order, without recursion: a tree built under this ordering can be as deep as it is long.
    std::vector<const Node*> path;
    const Node* node = m_pRoot;
    while (node != nullptr || !path.empty()) {
        while (node != nullptr) {
            path.push_back(node);
            node = node->pLeft;
        }
        node = path.back();
        path.pop_back();
        apps.push_back(node->app);
        node = node->pRight;
    }
}

void AgentAppList::clear() {
    ListGuard guard(*this);
    destroy(m_pRoot);
    m_pRoot = nullptr;
    m_nCount = 0;
}

void AgentAppList::erase(Node* node) {
    if (node->pLeft != nullptr && node->pRight != nullptr) {
        // Two children: the in-order successor's entry moves here and the successor goes.
        Node* successor = node->pRight;
        while (successor->pLeft != nullptr) {
            successor = successor->pLeft;
        }
        node->key = successor->key;
        node->app = successor->app;
        node = successor;
    }
    Node* child = node->pLeft != nullptr ? node->pLeft : node->pRight;
    if (child != nullptr) {
        child->pParent = node->pParent;
    }
    if (node->pParent == nullptr) {
        m_pRoot = child;
    } else if (node->pParent->pLeft == node) {
        node->pParent->pLeft = child;
    } else {
        node->pParent->pRight = child;
    }
    delete node;
    --m_nCount;
}

void AgentAppList::destroy(Node* node) {
    std::vector<Node*> pending;
    if (node != nullptr) {
        pending.push_back(node);
    }
    while (!pending.empty()) {
        Node* next = pending.back();
        pending.pop_back();
        if (next->pLeft != nullptr) {
            pending.push_back(next->pLeft);
        }
        if (next->pRight != nullptr) {
            pending.push_back(next->pRight);
        }
        delete next;
    }
}

}  // namespace Agent
}  // namespace PELK
