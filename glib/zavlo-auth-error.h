#pragma once

#include <glib-object.h>

G_BEGIN_DECLS

/**
 * ZAVLO_AUTH_ERROR:
 *
 * The error domain of every failure the library reports. The code says which failure;
 * the message is the library's own text.
 */
#define ZAVLO_AUTH_ERROR (zavlo_auth_error_quark())

/**
 * ZavloAuthError:
 * @ZAVLO_AUTH_ERROR_FAILED: a failure without a code of the library's own, such as a word
 *   an operator's server answered with (the message then starts with that word)
 * @ZAVLO_AUTH_ERROR_INVALID_OPTIONS: the client's options are not a JSON object of known values
 * @ZAVLO_AUTH_ERROR_NO_VIEW_CONTROLLER: the host gave no screen (`NO_VIEW_CONTROLLER`)
 * @ZAVLO_AUTH_ERROR_SESSION_NOT_INITIALIZED: no session was started (`SESSION_NOT_INITIALIZED`)
 * @ZAVLO_AUTH_ERROR_INVALID_SNA_URI: the authentication URL cannot be used (`INVALID_SNA_URI`)
 * @ZAVLO_AUTH_ERROR_SNA_CELLULAR_UNAVAILABLE: no cellular network (`SNA_CELLULAR_UNAVAILABLE`)
 * @ZAVLO_AUTH_ERROR_SNA_DEVICE_NOT_ON_MOBILE_DATA: not on mobile data (`SNA_DEVICE_NOT_ON_MOBILE_DATA`)
 * @ZAVLO_AUTH_ERROR_SNA_INVALID_REDIRECT: a hop redirected to a URL that cannot be followed (`SNA_INVALID_REDIRECT`)
 * @ZAVLO_AUTH_ERROR_SNA_CONNECTION_FAILED: a hop's connection failed (`SNA_CONNECTION_FAILED`)
 * @ZAVLO_AUTH_ERROR_SNA_CELLULAR_REQUEST_FAILED: a hop's request failed (`SNA_CELLULAR_REQUEST_FAILED`)
 * @ZAVLO_AUTH_ERROR_SNA_TOO_MANY_REDIRECTS: the chain redirected too often (`SNA_TOO_MANY_REDIRECTS`)
 * @ZAVLO_AUTH_ERROR_SDK_ERROR: the chain could not carry on (`SDK_ERROR`)
 * @ZAVLO_AUTH_ERROR_DEVICE_NOT_SECURE: no screen lock is set (`DEVICE_NOT_SECURE`)
 * @ZAVLO_AUTH_ERROR_DEVICE_BINDING_UNSUPPORTED: device binding is not available (`DEVICE_BINDING_UNSUPPORTED`)
 * @ZAVLO_AUTH_ERROR_DEVICE_BINDING_ENROLL_FAILED: enrolment failed (`DEVICE_BINDING_ENROLL_FAILED`)
 * @ZAVLO_AUTH_ERROR_INVALID_CHALLENGE: the challenge is missing or empty (`INVALID_CHALLENGE`)
 * @ZAVLO_AUTH_ERROR_DEVICE_BINDING_NOT_ENROLLED: no key is enrolled (`DEVICE_BINDING_NOT_ENROLLED`)
 * @ZAVLO_AUTH_ERROR_DEVICE_BINDING_KEY_INVALIDATED: the key is no longer valid (`DEVICE_BINDING_KEY_INVALIDATED`)
 * @ZAVLO_AUTH_ERROR_DEVICE_BINDING_SIGN_FAILED: signing failed (`DEVICE_BINDING_SIGN_FAILED`)
 * @ZAVLO_AUTH_ERROR_DEVICE_BINDING_USER_CANCELLED: the owner cancelled the prompt (`DEVICE_BINDING_USER_CANCELLED`)
 * @ZAVLO_AUTH_ERROR_DEVICE_BINDING_AUTH_FAILED: the owner could not be authenticated (`DEVICE_BINDING_AUTH_FAILED`)
 * @ZAVLO_AUTH_ERROR_INVALID_JSON_CONFIGURATION: a configuration is not a JSON object (`INVALID_JSON_CONFIGURATION`)
 * @ZAVLO_AUTH_ERROR_UNSUPPORTED_METHOD: a page named a method the bridge does not offer (`UNSUPPORTED_METHOD`)
 *
 * The codes of #ZAVLO_AUTH_ERROR. Each value's nick is the `errorCode` the library's
 * dictionaries carry for it, so `ZavloAuth.Error(e.code).value_nick` gives the word a
 * server or a page would see.
 */
typedef enum {
  ZAVLO_AUTH_ERROR_FAILED,
  ZAVLO_AUTH_ERROR_INVALID_OPTIONS,
  ZAVLO_AUTH_ERROR_NO_VIEW_CONTROLLER,
  ZAVLO_AUTH_ERROR_SESSION_NOT_INITIALIZED,
  ZAVLO_AUTH_ERROR_INVALID_SNA_URI,
  ZAVLO_AUTH_ERROR_SNA_CELLULAR_UNAVAILABLE,
  ZAVLO_AUTH_ERROR_SNA_DEVICE_NOT_ON_MOBILE_DATA,
  ZAVLO_AUTH_ERROR_SNA_INVALID_REDIRECT,
  ZAVLO_AUTH_ERROR_SNA_CONNECTION_FAILED,
  ZAVLO_AUTH_ERROR_SNA_CELLULAR_REQUEST_FAILED,
  ZAVLO_AUTH_ERROR_SNA_TOO_MANY_REDIRECTS,
  ZAVLO_AUTH_ERROR_SDK_ERROR,
  ZAVLO_AUTH_ERROR_DEVICE_NOT_SECURE,
  ZAVLO_AUTH_ERROR_DEVICE_BINDING_UNSUPPORTED,
  ZAVLO_AUTH_ERROR_DEVICE_BINDING_ENROLL_FAILED,
  ZAVLO_AUTH_ERROR_INVALID_CHALLENGE,
  ZAVLO_AUTH_ERROR_DEVICE_BINDING_NOT_ENROLLED,
  ZAVLO_AUTH_ERROR_DEVICE_BINDING_KEY_INVALIDATED,
  ZAVLO_AUTH_ERROR_DEVICE_BINDING_SIGN_FAILED,
  ZAVLO_AUTH_ERROR_DEVICE_BINDING_USER_CANCELLED,
  ZAVLO_AUTH_ERROR_DEVICE_BINDING_AUTH_FAILED,
  ZAVLO_AUTH_ERROR_INVALID_JSON_CONFIGURATION,
  ZAVLO_AUTH_ERROR_UNSUPPORTED_METHOD,
} ZavloAuthError;

/**
 * zavlo_auth_error_quark:
 *
 * Returns: the quark of #ZAVLO_AUTH_ERROR
 */
GQuark zavlo_auth_error_quark(void);

/**
 * zavlo_auth_error_get_type:
 *
 * Returns: the #GType of #ZavloAuthError
 */
GType zavlo_auth_error_get_type(void);
#define ZAVLO_AUTH_TYPE_ERROR (zavlo_auth_error_get_type())

G_END_DECLS
