#include <algorithm>

#include "sim/web/web_server_impl.h"

namespace sim {

int WebServer::Impl::confirm_upgrade(lws* socket, std::string_view protocol) {
  const bool wrong_place = web_header(socket, WSI_TOKEN_GET_URI) != "/socket";
  if (protocol != "websocket") return -1;
  const auto pages = std::ranges::count_if(connections, [](const auto& each) { return each.second.is_page; });
  const int status = !refusal(socket).empty()                           ? 403
                     : wrong_place                                      ? 404
                     : static_cast<std::size_t>(pages) >= kMostWebPages ? 503
                                                                        : 0;
  if (!status) return 0;
  lws_return_http_status(socket, static_cast<unsigned>(status), nullptr);
  return -1;
}

int WebServer::Impl::begin_page(WebConnection& client) {
  client.is_page = true;
  {
    const std::lock_guard guard(lock);
    updates.emplace(client.number, std::nullopt);
  }
  client.picture = newest;
  note_watching();
  handlers.page_changed(client.number, true);
  lws_callback_on_writable(client.socket);
  return 0;
}

int WebServer::Impl::take_message(WebConnection& client, std::string_view piece) {
  if (lws_is_first_fragment(client.socket)) client.message.clear();
  client.message += piece;
  if (client.message.size() > kLongestWebCommand || lws_frame_is_binary(client.socket)) return -1;
  if (!lws_is_final_fragment(client.socket)) return 0;
  Json message = json_in(std::exchange(client.message, {}));
  if (client.unanswered >= kMostWebAnswers) return -1;  // it does not read its answers
  if (message.is_object() && message.contains("drawn") && message["drawn"].is_number_unsigned()) {
    // A browser may finish the later of two pictures first.
    client.drawn = std::max(client.drawn, std::min(message["drawn"].get<u32>(), client.picture_number));
    note_watching();
    if (client.picture) lws_callback_on_writable(client.socket);
    return 0;
  }
  ++client.unanswered;
  take_page_command(client, std::move(message));
  return 0;
}

void WebServer::Impl::take_page_command(WebConnection& client, Json message) {
  WebCommand command{.client = client.number, .by_page = true};
  if (!message.is_object()) return take_answer(command, web_error(400, "the message is not a JSON object"));
  if (message.contains("id")) {
    if (!message["id"].is_number()) return take_answer(command, web_error(400, "\"id\" is not a number"));
    command.id = message["id"];
  }
  if (!message.contains("command") || !message["command"].is_string())
    return take_answer(command, web_error(400, "\"command\" is missing"));
  command.name = message["command"];
  message.erase("id");
  message.erase("command");
  command.arguments = std::move(message);
  handlers.command(std::move(command));
}

// Writes one message, so that the socket can refuse the next: answers first, then the update and a picture.
int WebServer::Impl::write_message(WebConnection& client) {
  std::string text;
  bool is_text = true;
  if (!client.answers.empty()) {
    text = std::move(client.answers.front());
    client.answers.pop_front();
    --client.unanswered;
  } else if (client.update) {
    text = std::move(*client.update);
    client.update.reset();
    const std::lock_guard guard(lock);
    if (const auto waiting = updates.find(client.number); waiting != updates.end()) waiting->second.reset();
  } else if (client.picture && wants_picture(client)) {
    const WebPicture picture_now = std::exchange(client.picture, nullptr);
    const u32 number = ++client.picture_number;
    text.resize(sizeof(number) + picture_now->size());
    put_le32(reinterpret_cast<u8*>(text.data()), number);
    std::ranges::copy(*picture_now, text.begin() + sizeof(number));
    is_text = false;
    note_watching();
  } else {
    return 0;
  }
  std::string message(LWS_PRE, '\0');
  message += text;
  const auto written = lws_write(client.socket, reinterpret_cast<unsigned char*>(message.data()) + LWS_PRE,
                                 text.size(), is_text ? LWS_WRITE_TEXT : LWS_WRITE_BINARY);
  if (written < 0) return -1;
  lws_callback_on_writable(client.socket);
  return 0;
}

}  // namespace sim
