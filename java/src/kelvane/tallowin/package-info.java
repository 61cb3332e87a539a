/**
 * The merchant's side of a hosted payment service, in three classes.
 *
 * <p>{@link kelvane.tallowin.ConfigurationSetup} sets up the configuration directory of an account.
 * {@link kelvane.tallowin.MessageFactory} creates payment messages and verifies confirmations.
 * {@link kelvane.tallowin.MessageObject} is one message: its attributes, its payment URL, and its capture.
 *
 * <p>Each object owns memory outside the Java heap. Close it after use, preferably with a try-with-resources statement.
 * After that, every method fails with "Invalid Handle". The memory of an object that is never closed is freed some time
 * after the garbage collector finds it unreachable.
 *
 * <p>Every failure throws a {@link kelvane.tallowin.KVXException} with the result code. A virtual machine that runs out
 * of memory or stack throws its own error.
 *
 * <p>Different threads may use different objects at the same time. Calls on one object run one after the other. Closing
 * an object while another thread is in one of its methods, or waits to enter one, throws an
 * {@link java.lang.IllegalStateException}. Some methods of {@link kelvane.tallowin.ConfigurationSetup} and
 * {@link kelvane.tallowin.MessageObject} send a request to the service and block until the response arrives; their
 * descriptions say so.
 *
 * <p>A {@code null} string argument counts as an empty string unless a method says otherwise. Strings reach the library
 * in Java's modified UTF-8: U+0000 as two bytes, characters beyond U+FFFF as two surrogates of three bytes each.
 *
 * <p>The native library is loaded from the path in the system property {@code kelvane.tallowin.library} when that is
 * set, otherwise from {@code java.library.path}, otherwise from the jar.
 */
package kelvane.tallowin;
