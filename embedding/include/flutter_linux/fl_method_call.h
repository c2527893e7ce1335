#ifndef FLUTTER_LINUX_FL_METHOD_CALL_H_
#define FLUTTER_LINUX_FL_METHOD_CALL_H_

#ifndef FLUTTER_LINUX_INSIDE
#error "Include <flutter_linux/flutter_linux.h> only."
#endif

// One call from the application, to be answered exactly once: in the handler,
// or later by who keeps a reference. Holds its channel.
G_DECLARE_FINAL_TYPE(FlMethodCall, fl_method_call, FL, METHOD_CALL, GObject)

// Neither is null; a call without arguments has the null value.
const gchar* fl_method_call_get_name(FlMethodCall* method_call);
FlValue* fl_method_call_get_args(FlMethodCall* method_call);

// Answers, on any thread. A result that cannot be encoded gives FALSE and an
// error, and leaves the call open; after a second answer the error stays unset.
// The first form never sets it: what the SDK leaves there is not to be touched.
gboolean fl_method_call_respond(FlMethodCall* method_call,
                                FlMethodResponse* response, GError** error);
gboolean fl_method_call_respond_success(FlMethodCall* method_call,
                                        FlValue* result, GError** error);
gboolean fl_method_call_respond_error(FlMethodCall* method_call,
                                      const gchar* code, const gchar* message,
                                      FlValue* details, GError** error);
gboolean fl_method_call_respond_not_implemented(FlMethodCall* method_call,
                                                GError** error);

#endif  // FLUTTER_LINUX_FL_METHOD_CALL_H_
