#include "ResManager.h"

#include <algorithm>
#include <iterator>

namespace Tarvik500 {

namespace {

struct MessageText {
    unsigned long id;
    const ostrel_char* text;
};

// Kept in ascending order of id. %1 marks where the host puts the first
// substitution string of the error record.
constexpr MessageText s_messages[] = {
    {42038, OSTREL_T("The parameter \"%1\" has a value of the wrong type.")},
    {42254, OSTREL_T("The single sign-on operation failed.")},
    {42256, OSTREL_T("ostrel failed to allocate memory.")},
    {42502, OSTREL_T("There was not enough memory to complete the single sign-on operation.")},
    {47300, OSTREL_T("The single sign-on plug-in is not initialized: it has no session manager.")},
    {47702, OSTREL_T("The user name is not in a usable form; write it as DOMAIN\\user or user@REALM.")},
    {49442, OSTREL_T("A parameter that external single sign-on requires is missing.")},
    {49443, OSTREL_T("The server and port list for external single sign-on is malformed, or no server in it could be "
                     "reached.")},
    {49444,
     OSTREL_T("The shared secret for external single sign-on could not be read, or the agent could not be set up.")},
    {49446, OSTREL_T("The external single sign-on vendor is not supported.")},
    {49447, OSTREL_T("The host name for external single sign-on is too long.")},
    {49448, OSTREL_T("The agent name for external single sign-on is too long.")},
    {49449, OSTREL_T("The shared secret for external single sign-on is too long.")},
    {50046, OSTREL_T("No authority could be contacted to authenticate the logon.")},
    {50047, OSTREL_T("The target service principal name \"%1\" is not known to the authority.")},
    {50054, OSTREL_T("The logon was denied.")},
    {61748, OSTREL_T("The current security context cannot be captured while caching of security contexts is off.")},
    {61749, OSTREL_T("The server's account does not match the target service principal name.")},
    {61773, OSTREL_T("No service principal name was given for this login.")},
    {61774, OSTREL_T("The credentials could not be acquired, or the logon with them was denied.")},
    {61775, OSTREL_T("No security context was found under this key.")},
    {61776, OSTREL_T("Impersonating the user or reverting from it failed, or the mechanism cannot impersonate.")},
    {61777, OSTREL_T("The mechanism %1 cannot be used: its package or library is missing, or a required setting is not "
                     "given.")},
    {61778, OSTREL_T("No single sign-on handler is available for the provider \"%1\".")},
    {61869, OSTREL_T("No valid security token was found: it is missing or has expired.")},
};

static_assert(std::is_sorted(std::begin(s_messages), std::end(s_messages),
                             [](const MessageText& a, const MessageText& b) { return a.id < b.id; }),
              "the message table must stay sorted by id");

}  // namespace

bool SResManager::Initialize() { return true; }

bool SResManager::Terminate() { return true; }

SWCharString SResManager::LoadStringW(unsigned long i_nMessageId, unsigned long /*i_nFlags*/) {
    const auto* pEntry = std::lower_bound(std::begin(s_messages), std::end(s_messages), i_nMessageId,
                                          [](const MessageText& e, unsigned long id) { return e.id < id; });
    if (pEntry == std::end(s_messages) || pEntry->id != i_nMessageId) {
        return SWCharString();
    }
    return SWCharString(pEntry->text);
}

}  // namespace Tarvik500
