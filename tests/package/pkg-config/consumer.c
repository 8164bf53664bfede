/* Built with only `pkg-config --cflags --libs zavlo-auth-glib`: a client, and the error
   domain refusing options that are none. */
#include <stdio.h>
#include <string.h>

#include <zavlo-auth-glib.h>

int main(void) {
  GError *error = NULL;
  ZavloAuthClient *refused = zavlo_auth_client_new ("{\"nope\": true}", &error);
  if (refused != NULL || !g_error_matches (error, ZAVLO_AUTH_ERROR, ZAVLO_AUTH_ERROR_INVALID_OPTIONS))
    return 1;
  g_clear_error (&error);
  ZavloAuthClient *client = zavlo_auth_client_new ("{\"telemetryEndpoint\": \"http://127.0.0.1:9/events\"}", &error);
  if (client == NULL)
    return 2;
  gchar *capabilities = zavlo_auth_client_get_capabilities (client);
  printf ("%s\n", capabilities);
  int status = strstr (capabilities, "\"SUCCESS\"") != NULL ? 0 : 3;
  g_free (capabilities);
  g_object_unref (client);
  return status;
}
