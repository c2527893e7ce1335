#include <flutter_linux/flutter_linux.h>

struct _FlMethodSuccessResponse {
  FlMethodResponse parent_instance;

  FlValue* result;  // owned, may be null
};

struct _FlMethodErrorResponse {
  FlMethodResponse parent_instance;

  gchar* code;
  gchar* message;    // may be null
  FlValue* details;  // owned, may be null
};

struct _FlMethodNotImplementedResponse {
  FlMethodResponse parent_instance;
};

G_DEFINE_QUARK(fl_method_response_error_quark, fl_method_response_error)

G_DEFINE_TYPE(FlMethodResponse, fl_method_response, G_TYPE_OBJECT)
G_DEFINE_TYPE(FlMethodSuccessResponse, fl_method_success_response,
              fl_method_response_get_type())
G_DEFINE_TYPE(FlMethodErrorResponse, fl_method_error_response,
              fl_method_response_get_type())
G_DEFINE_TYPE(FlMethodNotImplementedResponse,
              fl_method_not_implemented_response, fl_method_response_get_type())

static FlValue* RefOrNull(FlValue* value) {
  return value != nullptr ? fl_value_ref(value) : nullptr;
}

static void SetRemoteError(GError** error, FlMethodErrorResponse* response) {
  g_autoptr(GString) text = g_string_new("Remote code returned error ");
  g_string_append(text, response->code);
  if (response->message != nullptr) {
    g_string_append_printf(text, ": %s", response->message);
  }
  if (response->details != nullptr) {
    g_autofree gchar* details = fl_value_to_string(response->details);
    g_string_append_printf(text, " %s", details);
  }
  g_set_error_literal(error, FL_METHOD_RESPONSE_ERROR,
                      FL_METHOD_RESPONSE_ERROR_REMOTE_ERROR, text->str);
}

static void fl_method_success_response_dispose(GObject* object) {
  g_clear_pointer(&FL_METHOD_SUCCESS_RESPONSE(object)->result, fl_value_unref);
  G_OBJECT_CLASS(fl_method_success_response_parent_class)->dispose(object);
}

static void fl_method_error_response_dispose(GObject* object) {
  FlMethodErrorResponse* self = FL_METHOD_ERROR_RESPONSE(object);
  g_clear_pointer(&self->code, g_free);
  g_clear_pointer(&self->message, g_free);
  g_clear_pointer(&self->details, fl_value_unref);
  G_OBJECT_CLASS(fl_method_error_response_parent_class)->dispose(object);
}

static void fl_method_response_class_init(FlMethodResponseClass*) {}

static void fl_method_response_init(FlMethodResponse*) {}

static void fl_method_success_response_class_init(
    FlMethodSuccessResponseClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = fl_method_success_response_dispose;
}

static void fl_method_success_response_init(FlMethodSuccessResponse*) {}

static void fl_method_error_response_class_init(
    FlMethodErrorResponseClass* klass) {
  G_OBJECT_CLASS(klass)->dispose = fl_method_error_response_dispose;
}

static void fl_method_error_response_init(FlMethodErrorResponse*) {}

static void fl_method_not_implemented_response_class_init(
    FlMethodNotImplementedResponseClass*) {}

static void fl_method_not_implemented_response_init(
    FlMethodNotImplementedResponse*) {}

FlValue* fl_method_response_get_result(FlMethodResponse* response,
                                       GError** error) {
  g_return_val_if_fail(FL_IS_METHOD_RESPONSE(response), nullptr);
  if (FL_IS_METHOD_SUCCESS_RESPONSE(response)) {
    return FL_METHOD_SUCCESS_RESPONSE(response)->result;
  }
  if (FL_IS_METHOD_ERROR_RESPONSE(response)) {
    SetRemoteError(error, FL_METHOD_ERROR_RESPONSE(response));
  } else if (FL_IS_METHOD_NOT_IMPLEMENTED_RESPONSE(response)) {
    g_set_error_literal(error, FL_METHOD_RESPONSE_ERROR,
                        FL_METHOD_RESPONSE_ERROR_NOT_IMPLEMENTED,
                        "Requested method is not implemented");
  } else {
    g_set_error_literal(error, FL_METHOD_RESPONSE_ERROR,
                        FL_METHOD_RESPONSE_ERROR_FAILED,
                        "Unknown response type");
  }
  return nullptr;
}

FlMethodSuccessResponse* fl_method_success_response_new(FlValue* result) {
  FlMethodSuccessResponse* self = FL_METHOD_SUCCESS_RESPONSE(
      g_object_new(fl_method_success_response_get_type(), nullptr));
  self->result = RefOrNull(result);
  return self;
}

FlValue* fl_method_success_response_get_result(
    FlMethodSuccessResponse* response) {
  g_return_val_if_fail(FL_IS_METHOD_SUCCESS_RESPONSE(response), nullptr);
  return response->result;
}

FlMethodErrorResponse* fl_method_error_response_new(const gchar* code,
                                                    const gchar* message,
                                                    FlValue* details) {
  g_return_val_if_fail(code != nullptr, nullptr);
  FlMethodErrorResponse* self = FL_METHOD_ERROR_RESPONSE(
      g_object_new(fl_method_error_response_get_type(), nullptr));
  self->code = g_strdup(code);
  self->message = g_strdup(message);
  self->details = RefOrNull(details);
  return self;
}

const gchar* fl_method_error_response_get_code(
    FlMethodErrorResponse* response) {
  g_return_val_if_fail(FL_IS_METHOD_ERROR_RESPONSE(response), nullptr);
  return response->code;
}

const gchar* fl_method_error_response_get_message(
    FlMethodErrorResponse* response) {
  g_return_val_if_fail(FL_IS_METHOD_ERROR_RESPONSE(response), nullptr);
  return response->message;
}

FlValue* fl_method_error_response_get_details(FlMethodErrorResponse* response) {
  g_return_val_if_fail(FL_IS_METHOD_ERROR_RESPONSE(response), nullptr);
  return response->details;
}

FlMethodNotImplementedResponse* fl_method_not_implemented_response_new() {
  return FL_METHOD_NOT_IMPLEMENTED_RESPONSE(
      g_object_new(fl_method_not_implemented_response_get_type(), nullptr));
}
