// A PKCS#11 module for tests that stands in for a card with a PIN retry counter, which
// SoftHSM2 lacks: every call goes to SoftHSM2, and after three wrong PINs in a row every
// login is refused with CKR_PIN_LOCKED, whatever the PIN, as a card refuses them. Each
// SoftHSM2 configuration (each test's own token folder) has a count of its own.
#include <dlfcn.h>
#include <p11-kit/pkcs11.h>
#include <stdlib.h>

#include <map>
#include <string>

namespace {

constexpr int kTries = 3;
CK_FUNCTION_LIST softHsm;
CK_FUNCTION_LIST counting;
std::map<std::string, int> wrongInARowOf;

CK_RV countedLogin(CK_SESSION_HANDLE session, CK_USER_TYPE user, CK_UTF8CHAR_PTR pin, CK_ULONG length) {
  const char* configuration = getenv("SOFTHSM2_CONF");
  int& wrongInARow = wrongInARowOf[configuration != nullptr ? configuration : ""];
  if (wrongInARow >= kTries) return CKR_PIN_LOCKED;
  const CK_RV code = softHsm.C_Login(session, user, pin, length);
  if (code == CKR_PIN_INCORRECT) ++wrongInARow;
  if (code == CKR_OK) wrongInARow = 0;
  return code;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) CK_RV C_GetFunctionList(CK_FUNCTION_LIST_PTR_PTR list) {
  static void* const library = dlopen(ZAVLO_SOFTHSM_MODULE, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr || list == nullptr) return CKR_GENERAL_ERROR;
  auto* getList = reinterpret_cast<CK_C_GetFunctionList>(dlsym(library, "C_GetFunctionList"));
  CK_FUNCTION_LIST_PTR real = nullptr;
  if (getList == nullptr || getList(&real) != CKR_OK) return CKR_GENERAL_ERROR;
  softHsm = *real;
  counting = *real;
  counting.C_GetFunctionList = C_GetFunctionList;
  counting.C_Login = countedLogin;
  *list = &counting;
  return CKR_OK;
}
