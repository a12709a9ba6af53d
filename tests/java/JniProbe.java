import java.util.concurrent.CountDownLatch;

/**
 * Calls the native methods for the tests, one call per argument:
 *
 * <pre>
 *   CLASS ku_syslog PRIORITY MODULE ID TEXT
 *   CLASS zam_syslog PRIORITY ID TEXT
 *   CLASS is_debug_enabled             prints the result
 *   CLASS set_debug true|false
 *   threads COUNT MESSAGES             both classes in turn; the texts are "THREAD.MESSAGE"
 * </pre>
 *
 * CLASS is Logger or KuSyslogApi. In TEXT {@code \}{@code uHHHH} stands for a character; where the
 * blank before TEXT is missing too, the message is null.
 */
public final class JniProbe {
  private interface Api {
    void kuSyslog(int priority, int module, int id, String message);

    void zamSyslog(int priority, int id, String message);

    boolean isDebugEnabled();

    void setDebug(boolean on);
  }

  private static final class ViaLogger implements Api {
    @Override
    public void kuSyslog(int priority, int module, int id, String message) {
      velorin.Logger.ku_syslog(priority, module, id, message);
    }

    @Override
    public void zamSyslog(int priority, int id, String message) {
      velorin.Logger.zam_syslog(priority, id, message);
    }

    @Override
    public boolean isDebugEnabled() {
      return velorin.Logger.is_debug_enabled();
    }

    @Override
    public void setDebug(boolean on) {
      velorin.Logger.set_debug(on);
    }
  }

  private static final class ViaKuSyslogApi implements Api {
    @Override
    public void kuSyslog(int priority, int module, int id, String message) {
      velorin.KuSyslogApi.ku_syslog(priority, module, id, message);
    }

    @Override
    public void zamSyslog(int priority, int id, String message) {
      velorin.KuSyslogApi.zam_syslog(priority, id, message);
    }

    @Override
    public boolean isDebugEnabled() {
      return velorin.KuSyslogApi.is_debug_enabled();
    }

    @Override
    public void setDebug(boolean on) {
      velorin.KuSyslogApi.set_debug(on);
    }
  }

  private JniProbe() {}

  public static void main(String[] commands) throws InterruptedException {
    for (String command : commands) {
      run(command);
    }
  }

  private static void run(String command) throws InterruptedException {
    final String[] words = command.split(" ");
    if (words[0].equals("threads")) {
      logFromThreads(number(words[1]), number(words[2]));
      return;
    }
    final Api api = words[0].equals("Logger") ? new ViaLogger() : new ViaKuSyslogApi();
    switch (words[1]) {
      case "ku_syslog":
        api.kuSyslog(number(words[2]), number(words[3]), number(words[4]), text(command, 5));
        break;
      case "zam_syslog":
        api.zamSyslog(number(words[2]), number(words[3]), text(command, 4));
        break;
      case "is_debug_enabled":
        System.out.println(api.isDebugEnabled());
        break;
      case "set_debug":
        api.setDebug(Boolean.parseBoolean(words[2]));
        break;
      default:
        throw new IllegalArgumentException(command);
    }
  }

  private static int number(String word) {
    return Integer.parseInt(word);
  }

  private static String text(String command, int wordsBefore) {
    final String[] parts = command.split(" ", wordsBefore + 1);
    return parts.length > wordsBefore ? unescaped(parts[wordsBefore]) : null;
  }

  private static String unescaped(String text) {
    final StringBuilder out = new StringBuilder();
    for (int i = 0; i < text.length(); ++i) {
      if (text.startsWith("\\u", i)) {
        out.append((char) Integer.parseInt(text.substring(i + 2, i + 6), 16));
        i += 5;
      } else {
        out.append(text.charAt(i));
      }
    }
    return out.toString();
  }

  private static void logFromThreads(int count, int messages) throws InterruptedException {
    final Api[] apis = {new ViaLogger(), new ViaKuSyslogApi()};
    final CountDownLatch go = new CountDownLatch(1);
    final Thread[] threads = new Thread[count];
    for (int i = 0; i < count; ++i) {
      final int number = i;
      threads[i] =
          new Thread(
              () -> {
                try {
                  go.await();
                } catch (InterruptedException e) {
                  return;
                }
                for (int j = 0; j < messages; ++j) {
                  apis[(number + j) % apis.length].zamSyslog(6, number, number + "." + j);
                }
              });
      threads[i].start();
    }
    go.countDown();
    for (Thread thread : threads) {
      thread.join();
    }
  }
}
