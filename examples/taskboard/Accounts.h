/// Who may use the board, and who is logged in.
#ifndef TASKBOARD_ACCOUNTS_H
#define TASKBOARD_ACCOUNTS_H

#include "Database.h"

#include <Wendrel/kit/CookieSigner.h>
#include <Wendrel/kit/Request.h>

#include <string>

namespace taskboard
{

/// Users in the database; sessions in signed cookies. Any thread.
class Accounts
{
public:
    /// `database` outlives this. Its key signs the cookies: sessions survive a restart.
    explicit Accounts(Database& database);

    /// Adds a user, or gives an old one another password.
    void setPassword(const std::string& name, const std::string& password);

    /// The cookie of a session. Throws HttpError 401 for a wrong name or password.
    qv::kit::Cookie logIn(const qv::kit::Request& request, const std::string& name,
                          const std::string& password);

    /// The user of a request. Throws HttpError 401 when nobody is logged in.
    std::string userOf(const qv::kit::Request& request) const;

    static constexpr const char* kCookie = "session";

private:
    Database& mDatabase;
    qv::kit::CookieSigner mSigner;
};

}  // namespace taskboard

#endif
