package kelvane.tallowin;

import java.io.File;
import java.net.URL;
import java.net.URLClassLoader;
import java.util.ArrayList;
import java.util.List;
import kelvane.tallowin.ledger.Ledger;
import kelvane.tallowin.ledger.LedgerException;

/**
 * The program that {@link LedgerLibraryTest} runs. Prints the module of the ledger's class, what {@link #use} returns as
 * often as the argument says, each time in another class loader after the first, and whether the other package works.
 */
public final class LedgerProgram {
    private LedgerProgram() {}

    /** Creates a ledger and sets an option. Returns "used" or the failure. */
    public static String use() throws LedgerException {
        try (Ledger ledger = new Ledger()) {
            ledger.setOption("CAPTURE", "0");
            return "used";
        } catch (UnsatisfiedLinkError failure) {
            return failure.getMessage();
        }
    }

    /** Runs the program. */
    public static void main(String[] arguments) throws Exception {
        System.out.println("in " + Ledger.class.getModule());
        System.out.println("ledger: " + use());
        try (MessageObject message = new MessageObject()) {
            message.FromString("<KVX AMOUNT=\"12.50\"/>");
            System.out.println("amount: " + message.GetAttribute("AMOUNT"));
        }
        System.out.println("again: " + use());
        List<URL> path = new ArrayList<>();
        for (String element : System.getProperty("java.class.path").split(File.pathSeparator)) {
            path.add(new File(element).toURI().toURL());
        }
        List<ClassLoader> alive = new ArrayList<>();
        for (int i = 1; i < Integer.parseInt(arguments[0]); ++i) {
            URLClassLoader loader = new URLClassLoader(path.toArray(new URL[0]), ClassLoader.getPlatformClassLoader());
            alive.add(loader);
            System.out.println("loader: " + loader.loadClass(LedgerProgram.class.getName()).getMethod("use").invoke(null));
        }
        System.out.println(alive.size() + " loaders");
    }
}
