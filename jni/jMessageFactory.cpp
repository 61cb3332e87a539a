// The native methods of kelvane.tallowin.MessageFactory.

#include "api/cMessageFactory.h"
#include "jni/kvxjni.h"

using Factory = KVXCIMPL_MessageFactory;

extern "C" {

JNIEXPORT void JNICALL Java_kelvane_tallowin_MessageFactory_nConstruct(JNIEnv* env, jobject self) {
    kvxConstruct(env, self, KvxNative::kFactoryConstruct, CreateMessageFactory);
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_MessageFactory_nDestruct(JNIEnv* env, jobject self) {
    kvxDestruct<Factory>(env, self, KvxNative::kFactoryDestruct);
}

JNIEXPORT void JNICALL Java_kelvane_tallowin_MessageFactory_Open(JNIEnv* env, jobject self, jstring path) {
    kvxJavaCall<Factory>(env, self, KvxNative::kFactoryOpen,
                         [&](Factory& factory) { factory.Open(kvxTextOf(env, path)); });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_MessageFactory_nCreatePayInit(JNIEnv* env, jobject self) {
    return kvxJavaMake<Factory>(env, self, KvxNative::kFactoryCreatePayInit,
                                [](Factory& factory) { return factory.CreatePayInit(); });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_MessageFactory_nVerifyPayConfirm(JNIEnv* env, jobject self, jstring data,
                                                                              jstring signature) {
    return kvxJavaMake<Factory>(env, self, KvxNative::kFactoryVerifyPayConfirm, [&](Factory& factory) {
        return factory.VerifyPayConfirm(kvxTextOf(env, data), kvxTextOf(env, signature));
    });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_MessageFactory_nCreatePayComplete(JNIEnv* env, jobject self, jstring id,
                                                                               jstring token) {
    return kvxJavaMake<Factory>(env, self, KvxNative::kFactoryCreatePayComplete, [&](Factory& factory) {
        return factory.CreatePayComplete(kvxTextOf(env, id), kvxTextOf(env, token));
    });
}

JNIEXPORT jint JNICALL Java_kelvane_tallowin_MessageFactory_nCreateRequest(JNIEnv* env, jobject self, jstring type) {
    return kvxJavaMake<Factory>(env, self, KvxNative::kFactoryCreateRequest,
                                [&](Factory& factory) { return factory.CreateRequest(kvxTextOf(env, type)); });
}

}  // extern "C"
