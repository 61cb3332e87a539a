import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.charset.StandardCharsets;

import kelvane.tallowin.KVXException;
import kelvane.tallowin.MessageFactory;
import kelvane.tallowin.MessageObject;

/**
 * Makes payment URLs for java_bench. Arguments: the configuration directory, then names and values of the order. For each
 * line of its input, a count, it makes that many URLs and prints the processor nanoseconds of its thread and the last URL,
 * a line each.
 */
public final class PaymentLoop {
    private final MessageFactory factory = new MessageFactory();
    private final String[] arguments;

    private PaymentLoop(String[] arguments) throws KVXException {
        this.arguments = arguments;
        factory.Open(arguments[0]);
    }

    private String url() throws KVXException {
        try (MessageObject message = factory.CreatePayInit()) {
            for (int i = 1; i + 1 < arguments.length; i += 2) {
                message.SetAttribute(arguments[i], arguments[i + 1]);
            }
            return message.GetURL();
        }
    }

    /** Serves the counts of the input. */
    public static void main(String[] arguments) throws KVXException, IOException {
        PaymentLoop loop = new PaymentLoop(arguments);
        ThreadMXBean clock = ManagementFactory.getThreadMXBean();
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in, StandardCharsets.US_ASCII));
        for (String line = in.readLine(); line != null; line = in.readLine()) {
            String url = "";
            long begin = clock.getCurrentThreadCpuTime();
            for (int left = Integer.parseInt(line); left > 0; --left) {
                url = loop.url();
            }
            System.out.println(clock.getCurrentThreadCpuTime() - begin);
            System.out.println(url);
        }
        loop.factory.close();
    }
}
