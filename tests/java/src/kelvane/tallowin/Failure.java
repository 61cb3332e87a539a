package kelvane.tallowin;

import org.junit.function.ThrowingRunnable;

/** Code and text of a failed call in one string, for comparison. */
final class Failure {
    private Failure() {
    }

    /** The string that {@link #of} returns for a KVXException with this code and text. */
    static String text(int code, String errorMessage) {
        return String.format("0x%08X %s", code, errorMessage);
    }

    /**
     * Runs {@code call} and returns code and text of its KVXException, or "no failure". The exception's class may
     * belong to another class loader. Other exceptions are thrown.
     */
    static String of(ThrowingRunnable call) throws Throwable {
        try {
            call.run();
            return "no failure";
        } catch (Throwable thrown) {
            Class<?> type = thrown.getClass();
            if (!type.getName().equals("kelvane.tallowin.KVXException")) {
                throw thrown;
            }
            int code = (Integer) type.getMethod("getHR").invoke(thrown);
            return text(code, (String) type.getMethod("getErrorMessage").invoke(thrown));
        }
    }
}
