/** @file
 *  A stretch of the library's own work on files and messages, of which its caller is to notice nothing. Private. */
#ifndef QXUTIL_UNINTERRUPTED_H
#define QXUTIL_UNINTERRUPTED_H

/** While this lives, the thread isn't cancelled: its caller may hold locks. At its end, the error number is what it
 * was. No system call. */
class QXUninterrupted {
  public:
    QXUninterrupted() noexcept;
    ~QXUninterrupted();
    QXUninterrupted(const QXUninterrupted &) = delete;
    QXUninterrupted &operator=(const QXUninterrupted &) = delete;

  private:
    int error_;
    int cancel_ = 0;
};

#endif
