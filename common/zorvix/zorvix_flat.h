// The bridge as flat functions with unmangled names, for hosts that find them with dlsym:
//
//   auto publish = reinterpret_cast<decltype(&ZorvixPublish)>(dlsym(library, "ZorvixPublish"));
//
// Each function calls the method of the same name on the only instance and has its contract. The
// parameters are objects of the standard library: callers must use the one that the bridge was
// built with.
#ifndef ZORVIX_ZORVIX_FLAT_H_
#define ZORVIX_ZORVIX_FLAT_H_

#include "zorvix.h"

extern "C" {

ZORVIX_EXPORT void ZorvixRegisterPublisher(std::shared_ptr<const bridge::Control>& control);
ZORVIX_EXPORT void ZorvixUnregisterPublisher(std::shared_ptr<const bridge::Control>& control);
ZORVIX_EXPORT void ZorvixRegisterSubscriber(std::shared_ptr<const bridge::Control>& control,
                                            const bridge::SubscriberCallback& callback);
ZORVIX_EXPORT void ZorvixUnregisterSubscriber(std::shared_ptr<const bridge::Control>& control,
                                              unsigned long callback_handle);
ZORVIX_EXPORT bool ZorvixPublish(const std::shared_ptr<const bridge::Control>& control,
                                 bridge::Message&& message);

ZORVIX_EXPORT void ZorvixRegisterClient(std::shared_ptr<const bridge::Control>& control);
ZORVIX_EXPORT void ZorvixUnregisterClient(std::shared_ptr<const bridge::Control>& control);
ZORVIX_EXPORT void ZorvixRegisterServer(std::shared_ptr<const bridge::Control>& control,
                                        const bridge::ServerCallback& callback);
// Has no number, which the method ignores.
ZORVIX_EXPORT void ZorvixUnregisterServer(std::shared_ptr<const bridge::Control>& control);
ZORVIX_EXPORT bool ZorvixCall(const std::shared_ptr<const bridge::Control>& control,
                              bridge::RequestCallback&& request);

ZORVIX_EXPORT bool ZorvixRunOneceStep();
ZORVIX_EXPORT void ZorvixSpinOnce();
ZORVIX_EXPORT void ZorvixSpin(unsigned long workers);
// Returns whether any worker is running. There is no such method.
ZORVIX_EXPORT bool ZorvixIsSpin();
ZORVIX_EXPORT void ZorvixStopSpin();

}  // extern "C"

#endif  // ZORVIX_ZORVIX_FLAT_H_
