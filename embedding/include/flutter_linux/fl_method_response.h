#ifndef FLUTTER_LINUX_FL_METHOD_RESPONSE_H_
#define FLUTTER_LINUX_FL_METHOD_RESPONSE_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

#define FL_METHOD_RESPONSE_ERROR fl_method_response_error_quark()

typedef enum {
  FL_METHOD_RESPONSE_ERROR_FAILED,
  FL_METHOD_RESPONSE_ERROR_REMOTE_ERROR,
  FL_METHOD_RESPONSE_ERROR_NOT_IMPLEMENTED,
} FlMethodResponseError;

GQuark fl_method_response_error_quark(void) G_GNUC_CONST;

// The answer to a method call, one of the three types below.
G_DECLARE_DERIVABLE_TYPE(FlMethodResponse, fl_method_response, FL,
                         METHOD_RESPONSE, GObject)

struct _FlMethodResponseClass {
  GObjectClass parent_class;
};

G_DECLARE_FINAL_TYPE(FlMethodSuccessResponse, fl_method_success_response, FL,
                     METHOD_SUCCESS_RESPONSE, FlMethodResponse)
G_DECLARE_FINAL_TYPE(FlMethodErrorResponse, fl_method_error_response, FL,
                     METHOD_ERROR_RESPONSE, FlMethodResponse)
G_DECLARE_FINAL_TYPE(FlMethodNotImplementedResponse,
                     fl_method_not_implemented_response, FL,
                     METHOD_NOT_IMPLEMENTED_RESPONSE, FlMethodResponse)

// The result of a success (null if made with null), an error for the others.
FlValue* fl_method_response_get_result(FlMethodResponse* response,
                                       GError** error);

// Result, message and details may be null, the code may not.
FlMethodSuccessResponse* fl_method_success_response_new(FlValue* result);
FlValue* fl_method_success_response_get_result(
    FlMethodSuccessResponse* response);

FlMethodErrorResponse* fl_method_error_response_new(const gchar* code,
                                                    const gchar* message,
                                                    FlValue* details);
const gchar* fl_method_error_response_get_code(FlMethodErrorResponse* response);
const gchar* fl_method_error_response_get_message(
    FlMethodErrorResponse* response);
FlValue* fl_method_error_response_get_details(FlMethodErrorResponse* response);

FlMethodNotImplementedResponse* fl_method_not_implemented_response_new(void);

#endif  // FLUTTER_LINUX_FL_METHOD_RESPONSE_H_
