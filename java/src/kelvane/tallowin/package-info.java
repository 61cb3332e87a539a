/**
 * The three objects with which a shop takes part in a hosted payment service.
 *
 * <p>{@link kelvane.tallowin.ConfigurationSetup} sets up the configuration directory of an account.
 * {@link kelvane.tallowin.MessageFactory} makes payment messages and verifies confirmations.
 * {@link kelvane.tallowin.MessageObject} is one message: its attributes, its payment URL, its capture.
 *
 * <p>Each object owns memory outside the Java heap. Close it when done, best by a try-with-resources statement. An object
 * that is forgotten is freed some time after the garbage collector has found it, and after a close every method fails
 * with "Invalid Handle".
 *
 * <p>Every failure is a {@link kelvane.tallowin.KVXException} that carries the result code; a virtual machine without
 * memory or stack throws its own error.
 *
 * <p>Different objects may be used by different threads at once. Calls on one object wait for each other; closing an
 * object while another thread is inside one of its methods, or waits to be, is an
 * {@link java.lang.IllegalStateException}. Methods of
 * {@link kelvane.tallowin.ConfigurationSetup} and {@link kelvane.tallowin.MessageObject} that talk to the service say so;
 * they block until the service has answered.
 *
 * <p>A string argument that is {@code null} counts as an empty one, where a method does not say otherwise. Characters
 * reach the library in Java's modified UTF-8: U+0000 as two bytes, characters beyond U+FFFF as two surrogates of three
 * bytes each.
 *
 * <p>The native library is looked for at the path of the system property {@code kelvane.tallowin.library}, when that is
 * set; else along {@code java.library.path}; else it is taken out of the jar.
 */
package kelvane.tallowin;
