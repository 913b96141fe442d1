#include "MockState.h"

#include <algorithm>
#include <cstring>

namespace mock {

bool Object::isPrivate() const {
    auto it = attributes.find(CKA_PRIVATE);
    return it != attributes.end() && it->second.size() == sizeof(CK_BBOOL) &&
           it->second[0] == CK_TRUE;
}

bool Object::matches(const CK_ATTRIBUTE* pTemplate, CK_ULONG count) const {
    for (CK_ULONG i = 0; i < count; ++i) {
        auto it = attributes.find(pTemplate[i].type);
        if (it == attributes.end() || it->second.size() != pTemplate[i].ulValueLen) return false;
        if (!it->second.empty() &&
            std::memcmp(it->second.data(), pTemplate[i].pValue, it->second.size()) != 0)
            return false;
    }
    return true;
}

bool Token::sees(const Object& object) const {
    return !object.isPrivate() || loggedInAs == CKU_USER;
}

Object* Token::findVisible(CK_OBJECT_HANDLE handle) {
    auto it = std::find_if(objects.begin(), objects.end(),
                           [&](const Object& o) { return o.handle == handle; });
    return it != objects.end() && sees(*it) ? &*it : nullptr;
}

Slot* State::findSlot(CK_SLOT_ID id) {
    auto it = std::find_if(slots.begin(), slots.end(), [&](const Slot& s) { return s.id == id; });
    return it == slots.end() ? nullptr : &*it;
}

Token* State::findToken(CK_SLOT_ID id) {
    Slot* slot = findSlot(id);
    return slot && slot->token ? &*slot->token : nullptr;
}

Session* State::findSession(CK_SESSION_HANDLE handle) {
    auto it = sessions.find(handle);
    return it == sessions.end() ? nullptr : &it->second;
}

Token& State::tokenOf(const Session& session) {
    return *findToken(session.slot);
}

size_t State::countSessions(CK_SLOT_ID slot, bool readWriteOnly) const {
    return static_cast<size_t>(std::count_if(sessions.begin(), sessions.end(), [&](const auto& entry) {
        return entry.second.slot == slot && (entry.second.readWrite || !readWriteOnly);
    }));
}

void State::closeSession(CK_SESSION_HANDLE handle) {
    auto it = sessions.find(handle);
    if (it == sessions.end()) return;
    CK_SLOT_ID slot = it->second.slot;
    sessions.erase(it);
    Token* token = findToken(slot);
    if (token && countSessions(slot, false) == 0) token->loggedInAs.reset();
}

void State::closeSessionsOf(CK_SLOT_ID slot) {
    std::erase_if(sessions, [&](const auto& entry) { return entry.second.slot == slot; });
    if (Token* token = findToken(slot)) token->loggedInAs.reset();
}

void State::setBehaviour(const Behaviour& b) {
    behaviour = b;
    yieldInside = b.refusesOsLocking;
}

State& state() {
    static State instance;
    return instance;
}

void padField(CK_UTF8CHAR* field, size_t width, std::string_view text) {
    std::memset(field, ' ', width);
    std::memcpy(field, text.data(), std::min(width, text.size()));
}

bool isLimited(CK_ULONG maximum) {
    return maximum != CK_EFFECTIVELY_INFINITE && maximum != CK_UNAVAILABLE_INFORMATION;
}

}  // namespace mock
