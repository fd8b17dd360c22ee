#include "auth/SkywardAuthentication.h"

#include "auth/IdentityLogin.h"
#include "client/SecretWipe.h"

namespace {

// Every login uses the same client credential; it is not configuration.
const wchar_t kClientSecret[] = L"5d0c1e7a9b3f4a6c8e2d7f1b0a9c4e36";

CString WideToCString(const std::wstring& text) {
    return CString(text.data(), static_cast<int>(text.size()));
}

} // namespace

CAuthenticationResult::~CAuthenticationResult() {
    for (int i = 0; i < AccessToken.GetLength(); ++i) {
        AccessToken.SetAt(i, L'\0');
    }
}

CAuthenticationResult CSkywardAuthentication::Authenticate(CString identityServerUrl) {
    IdentityLoginResult login = LoginAtIdentityServer(identityServerUrl.GetString(), kClientSecret);
    CAuthenticationResult result;
    result.AccessToken = WideToCString(login.accessToken);
    result.Error = WideToCString(login.error);
    result.ResultType = login.resultType;
    WipeSecret(login.accessToken);
    return result;
}
