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

/** A server on a free loopback port that answers exactly when the test lets it. */
final class LocalServer implements AutoCloseable {
    private static final int LIMIT = (int) TimeUnit.SECONDS.toMillis(60);
    private static final Socket REFUSING = newRefusing();

    private final ServerSocket listener;
    private Socket client;

    LocalServer() throws IOException {
        listener = new ServerSocket(0, 5, InetAddress.getByName("127.0.0.1"));
        listener.setSoTimeout(LIMIT);
    }

    /** The address of a port that refuses every connection, and that nobody else gets while this machine lives. */
    static String refusingBase() {
        return "http://127.0.0.1:" + REFUSING.getLocalPort();
    }

    /** A socket that is bound but does not listen. */
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

    /** Waits until a request is here; whoever sent it now waits for the answer. Returns its head. */
    String awaitRequest() throws IOException {
        client = listener.accept();
        client.setSoTimeout(LIMIT);
        StringBuilder request = new StringBuilder();
        InputStream input = client.getInputStream();
        while (request.indexOf("\r\n\r\n") < 0) {
            int next = input.read();
            if (next < 0) {
                throw new IOException("the request breaks off: " + request);
            }
            request.append((char) next);
        }
        return request.toString();
    }

    /** Answers the request with a message. */
    void answer(String message) throws IOException {
        answerRaw("HTTP/1.0 200 OK\r\n\r\n" + message);
    }

    void answerRaw(String reply) throws IOException {
        client.getOutputStream().write(reply.getBytes(StandardCharsets.ISO_8859_1));
        client.close();
    }

    /** Answers the next request from a thread of its own. */
    void answerLater(String reply) {
        Thread thread = new Thread(() -> {
            try {
                awaitRequest();
                answerRaw(reply);
            } catch (IOException failure) {
                throw new AssertionError(failure);  // and the caller's own expectation fails
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
