#include "support/providers/fakekeycheck.h"

namespace qm::test {

const QList<KeyRoute> &keyRoutes()
{
    static const QList<KeyRoute> routes{
        {"Deepgram", "", "/v1/projects", "", "Authorization", "Token ", R"({"projects":[]})",
         R"({"err_code":"INVALID_AUTH","err_msg":"Invalid credentials.","request_id":"0"})", "Invalid credentials."},
        {"OpenAI", "", "/v1/models", "", "Authorization", "Bearer ", R"({"object":"list","data":[]})",
         R"({"error":{"message":"Incorrect API key provided.","type":"invalid_request_error","code":"invalid_api_key"}})",
         "Incorrect API key provided."},
        {"AssemblyAI", "/v2", "/v2/transcript", "limit=1", "authorization", "", R"({"transcripts":[]})",
         R"({"error":"Authentication error, API token missing/invalid"})",
         "Authentication error, API token missing/invalid"},
        {"ElevenLabs", "", "/v1/user", "", "xi-api-key", "", R"({"subscription":{}})",
         R"({"detail":{"status":"invalid_api_key","message":"Invalid API key"}})", "Invalid API key"},
    };
    return routes;
}

FakeKeyCheck::FakeKeyCheck()
    : server([this](const ReceivedRequest &request) {
          for (const KeyRoute &route : keyRoutes()) {
              if (request.path != route.path)
                  continue;
              if (request.method != "GET" || request.query != route.query)
                  break;
              if (request.header(route.header) == route.prefix + key.toUtf8())
                  return ScriptedResponse::json(200, route.accepted);
              return ScriptedResponse::json(401, route.refused);
          }
          return ScriptedResponse::json(404, R"({"message":"Not found"})");
      })
{}

} // namespace qm::test
