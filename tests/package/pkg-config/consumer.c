/* Built with only `pkg-config --cflags --libs zavlo-auth-glib`: a client's capabilities. */
#include <stdio.h>
#include <string.h>

#include <zavlo-auth-glib.h>

int main(void) {
  GError* error = NULL;
  ZavloAuthClient* client = zavlo_auth_client_new("{\"telemetryEndpoint\": \"http://127.0.0.1:9/events\"}", &error);
  if (client == NULL) return 1;
  gchar* capabilities = zavlo_auth_client_get_capabilities(client);
  printf("%s\n", capabilities);
  int status = strstr(capabilities, "\"SUCCESS\"") != NULL ? 0 : 2;
  g_free(capabilities);
  g_object_unref(client);
  return status;
}
