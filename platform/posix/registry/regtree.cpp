#include "platform/posix/registry/regtree.h"

#include "platform/posix/text/textcase.h"

#include <algorithm>
#include <span>

namespace {

CRegKey *FindChild(CRegKey const &key, std::string_view name)
{
    auto const i = key.keys.find(Utf8Fold(name));
    return i != key.keys.end() ? i->second.get() : nullptr;
}

} // namespace

CRegKey const *CRegKey::Find(std::string_view path) const
{
    CRegKey const *pKey = this;
    while (pKey != nullptr && !path.empty()) {
        std::size_t const cb = std::min(path.find('\\'), path.size());
        if (cb > 0) { // a backslash more than need be counts for nothing
            pKey = FindChild(*pKey, path.substr(0, cb));
        }
        path.remove_prefix(std::min(cb + 1, path.size()));
    }
    return pKey;
}

void CRegTreeBuilder::OnKey(CRegPath const &path)
{
    m_pKey = &m_root;
    for (std::string_view const name : path) {
        std::unique_ptr<CRegKey> &pChild = m_pKey->keys[Utf8Fold(name)];
        if (pChild == nullptr) {
            pChild = std::make_unique<CRegKey>();
            pChild->strName = name;
        }
        m_pKey = pChild.get();
    }
}

void CRegTreeBuilder::OnDeleteKey(CRegPath const &path)
{
    m_pKey = nullptr;
    CRegKey *pParent = &m_root;
    for (std::string_view const name : std::span(path).first(path.size() - 1)) {
        pParent = pParent != nullptr ? FindChild(*pParent, name) : nullptr;
    }
    if (pParent != nullptr) {
        pParent->keys.erase(Utf8Fold(path.back()));
    }
}

void CRegTreeBuilder::OnValue(std::string_view name, DWORD dwType, std::string_view data)
{
    m_pKey->values.insert_or_assign(Utf8Fold(name), CRegValue{dwType, std::string(data)});
}

void CRegTreeBuilder::OnDeleteValue(std::string_view name)
{
    m_pKey->values.erase(Utf8Fold(name));
}
