// Change Password (17): the new password arrives plain, as a Pascal string.
#pragma once

#include <cstdint>

class Session;

void changePassword(Session& session, std::uint16_t code);
