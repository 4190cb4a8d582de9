// The library's two exports. Neither catches: when memory runs out the allocation exception
// reaches the host, and neither ever returns null.
#include "VESK.h"
#include "VeskCredentials.h"
#include "client/KEFL.h"

extern "C" morvane::VESK* Factory()
{
    return new morvane::KEFL();
}

extern "C" morvane::VeskCredentials* CredentialsFactory()
{
    return new morvane::KeflCredentials();
}
