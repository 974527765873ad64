"""Mails that tests are made of."""
import email.message
import email.policy

HEAD = b"From: a@example.test\r\nTo: b@example.test\r\nSubject: a thing\r\nMIME-Version: 1.0\r\n"


def attached(content, name="thing.bin", text="See there."):
    """A mail with an attachment, as a mail client makes it."""
    mail = email.message.EmailMessage(email.policy.SMTP)
    mail["From"], mail["To"], mail["Subject"] = "a@example.test", "b@example.test", "a thing"
    mail.set_content(text)
    mail.add_attachment(content, maintype="application", subtype="octet-stream", filename=name)
    return mail.as_bytes()


def parts(*bodies):
    """A mail of parts that are given as they stand, with their fields."""
    return (HEAD + b"Content-Type: multipart/mixed; boundary=cut\r\n\r\n"
            + b"".join(b"--cut\r\n" + one + b"\r\n" for one in bodies) + b"--cut--\r\n")


def encoded(encoding, content, fields=b"Content-Type: application/octet-stream\r\n"):
    return fields + b"Content-Transfer-Encoding: " + encoding + b"\r\n\r\n" + content


def in_message(mail):
    """The mail as an attachment of another one."""
    return parts(b"Content-Type: text/plain\r\n\r\nForwarded.", b"Content-Type: message/rfc822\r\n\r\n" + mail)
