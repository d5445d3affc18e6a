// Source lists, snapshot handles, capability lists and provider versions.
#include "storage/ssm/client/SSRecords.h"

#include <stdlib.h>
#include <string.h>

namespace {
// Deletes the rest of a chain one node at a time, so that a long list cannot
// exhaust the stack through nested destructors.
template <typename Node>
void delete_chain(Node*& next) {
    Node* n = next;
    next = nullptr;
    while (n != nullptr) {
        Node* after = n->next;
        n->next = nullptr;
        delete n;
        n = after;
    }
}
}  // namespace

SSSourceList::SSSourceList() : next(nullptr), ssSource(nullptr) {}

SSSourceList::~SSSourceList() {
    free(ssSource);
    ssSource = nullptr;
    delete_chain(next);
}

void SSSourceList::append(SSSourceList*) {
    SSSourceList* tail = this;
    while (tail->next != nullptr) tail = tail->next;
}

SCSnapshotHandle::SCSnapshotHandle()
    : m_pguid(nullptr),
      m_guidLen(0),
      m_pdetails(nullptr),
      m_detailLen(0),
      m_pdetailsChgAtImport(0) {}

SCSnapshotHandle::SCSnapshotHandle(const SCSnapshotHandle* other)
    : m_pguid(nullptr),
      m_guidLen(0),
      m_pdetails(nullptr),
      m_detailLen(0),
      m_pdetailsChgAtImport(0) {
    if (other == nullptr) return;
    // A copy of a half-filled handle stays half-filled rather than crashing.
    if (other->m_pguid != nullptr)
        m_pguid =
            reinterpret_cast<unsigned char*>(strdup(reinterpret_cast<const char*>(other->m_pguid)));
    if (other->m_pdetails != nullptr)
        m_pdetails = reinterpret_cast<unsigned char*>(
            strdup(reinterpret_cast<const char*>(other->m_pdetails)));
    m_guidLen = other->m_guidLen;
    m_detailLen = other->m_detailLen;
    m_pdetailsChgAtImport = other->m_pdetailsChgAtImport;
}

SCSnapshotHandle::~SCSnapshotHandle() {
    free(m_pguid);
    free(m_pdetails);
}

SCSnapshotCapabilityList::~SCSnapshotCapabilityList() {
    delete pCap;
    delete_chain(next);
}

SSProviderVersion::~SSProviderVersion() {
    free(product);
    product = nullptr;
    free(extendedVersionInfo);
    extendedVersionInfo = nullptr;
}
