package kelvane.tallowin;

import java.io.IOException;
import java.io.InputStream;
import java.io.UncheckedIOException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.charset.StandardCharsets;
import java.util.concurrent.TimeUnit;

/** A server on a free loopback port that responds when the test tells it to. */
final class LocalServer implements AutoCloseable {
    private static final int LIMIT = (int) TimeUnit.SECONDS.toMillis(60);
    private static final Socket REFUSING = newRefusing();

    private final ServerSocket listener;
    private Socket client;

    LocalServer() throws IOException {
        listener = new ServerSocket(0, 5, InetAddress.getByName("127.0.0.1"));
        listener.setSoTimeout(LIMIT);
    }

    /** The address of a port that refuses connections, reserved until this virtual machine exits. */
    static String refusingBase() {
        return "http://127.0.0.1:" + REFUSING.getLocalPort();
    }

    /** A socket that is bound but does not listen, so its port refuses connections. */
    private static Socket newRefusing() {
        try {
            Socket bound = new Socket();
            bound.bind(new InetSocketAddress(InetAddress.getByName("127.0.0.1"), 0));
            return bound;
        } catch (IOException failure) {
            throw new UncheckedIOException(failure);
        }
    }

    String base() {
        return "http://127.0.0.1:" + listener.getLocalPort();
    }

    /** Receives a request, whose sender then waits for the response. Returns the request's header. */
    String awaitRequest() throws IOException {
        client = listener.accept();
        client.setSoTimeout(LIMIT);
        StringBuilder request = new StringBuilder();
        InputStream input = client.getInputStream();
        while (request.indexOf("\r\n\r\n") < 0) {
            int next = input.read();
            if (next < 0) {
                throw new IOException("the request is incomplete: " + request);
            }
            request.append((char) next);
        }
        return request.toString();
    }

    /** Responds with a message. */
    void answer(String message) throws IOException {
        answerRaw("HTTP/1.0 200 OK\r\n\r\n" + message);
    }

    void answerRaw(String reply) throws IOException {
        client.getOutputStream().write(reply.getBytes(StandardCharsets.ISO_8859_1));
        client.close();
    }

    /** Starts a thread that responds to the next request. */
    void answerLater(String reply) {
        Thread thread = new Thread(() -> {
            try {
                awaitRequest();
                answerRaw(reply);
            } catch (IOException failure) {
                throw new AssertionError(failure);  // the test fails too: its request gets no response
            }
        }, "local server");
        thread.setDaemon(true);
        thread.start();
    }

    @Override
    public void close() throws IOException {
        if (client != null) {
            client.close();
        }
        listener.close();
    }
}
