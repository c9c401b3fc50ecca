// Ear clipping in the best-fit plane, clipping the best-shaped ear first.
#include "qyGeom/polygonTriangulate.h"

#include <algorithm>
#include <cmath>

namespace qyGeom
{

namespace
{

struct P2
{
    double x, y;
};

double orient(const P2& a, const P2& b, const P2& c)
{
    return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
}

bool samePoint(const P2& a, const P2& b)
{
    return a.x == b.x && a.y == b.y;
}

// Inclusive test: a point on an edge of the triangle blocks the ear, which keeps the clipped
// triangles from overlapping where a corner touches a diagonal.
bool insideTriangle(const P2& p, const P2& a, const P2& b, const P2& c)
{
    return orient(a, b, p) >= 0.0 && orient(b, c, p) >= 0.0 && orient(c, a, p) >= 0.0;
}

double angleAt(const P2& o, const P2& a, const P2& b)
{
    const double ax = a.x - o.x, ay = a.y - o.y, bx = b.x - o.x, by = b.y - o.y;
    return std::atan2(std::fabs(ax * by - ay * bx), ax * bx + ay * by);
}

double smallestAngle(const P2& a, const P2& b, const P2& c)
{
    return std::min({angleAt(a, b, c), angleAt(b, c, a), angleAt(c, a, b)});
}

class EarClipper
{
public:
    explicit EarClipper(std::vector<P2>&& pts)
        : m_pts(std::move(pts)), m_n(int(m_pts.size())), m_prev(static_cast<std::size_t>(m_n)),
          m_next(static_cast<std::size_t>(m_n)), m_turn(static_cast<std::size_t>(m_n)),
          m_quality(static_cast<std::size_t>(m_n))
    {
        for (int i = 0; i < m_n; ++i)
        {
            m_prev[std::size_t(i)] = (i + m_n - 1) % m_n;
            m_next[std::size_t(i)] = (i + 1) % m_n;
        }
    }

    void run(std::vector<int>& out)
    {
        int remaining = m_n;
        for (int i = 0; i < m_n; ++i)
            updateTurn(i);
        for (int i = 0; i < m_n; ++i)
            updateEar(i);
        int start = 0;
        while (remaining > 3)
        {
            int best = -1;
            double bestQuality = -1.0;
            int i = start;
            for (int k = 0; k < remaining; ++k, i = m_next[std::size_t(i)])
            {
                if (m_quality[std::size_t(i)] > bestQuality)
                {
                    bestQuality = m_quality[std::size_t(i)];
                    best = i;
                }
            }
            if (best < 0)
            {
                // No ear: the projection is not simple or has collinear runs. Clip the corner
                // that turns left the most (or right the least) so that the loop shrinks.
                double bestTurn = -HUGE_VAL;
                i = start;
                for (int k = 0; k < remaining; ++k, i = m_next[std::size_t(i)])
                {
                    if (m_turn[std::size_t(i)] > bestTurn)
                    {
                        bestTurn = m_turn[std::size_t(i)];
                        best = i;
                    }
                }
            }
            if (best < 0)
                best = start; // every turn is NaN (a non-finite corner): clip in loop order
            const int p = m_prev[std::size_t(best)], q = m_next[std::size_t(best)];
            out.push_back(p);
            out.push_back(best);
            out.push_back(q);
            m_next[std::size_t(p)] = q;
            m_prev[std::size_t(q)] = p;
            --remaining;
            start = q;
            const bool pWasReflex = m_turn[std::size_t(p)] <= 0.0;
            const bool qWasReflex = m_turn[std::size_t(q)] <= 0.0;
            updateTurn(p);
            updateTurn(q);
            if ((pWasReflex && m_turn[std::size_t(p)] > 0.0) ||
                (qWasReflex && m_turn[std::size_t(q)] > 0.0))
            {
                // A reflex corner became convex: ears that it blocked may have opened.
                i = q;
                for (int k = 0; k < remaining; ++k, i = m_next[std::size_t(i)])
                    updateEar(i);
            }
            else
            {
                updateEar(p);
                updateEar(q);
            }
        }
        const int a = start, b = m_next[std::size_t(a)], c = m_next[std::size_t(b)];
        out.push_back(a);
        out.push_back(b);
        out.push_back(c);
    }

private:
    void updateTurn(int i)
    {
        m_turn[std::size_t(i)] =
            orient(m_pts[std::size_t(m_prev[std::size_t(i)])], m_pts[std::size_t(i)],
                   m_pts[std::size_t(m_next[std::size_t(i)])]);
    }

    // m_quality[i] = smallest angle of the ear at i, or -1 when i is not an ear.
    void updateEar(int i)
    {
        m_quality[std::size_t(i)] = -1.0;
        if (!(m_turn[std::size_t(i)] > 0.0))
            return;
        const int p = m_prev[std::size_t(i)], q = m_next[std::size_t(i)];
        const P2 &a = m_pts[std::size_t(p)], &b = m_pts[std::size_t(i)], &c = m_pts[std::size_t(q)];
        for (int j = m_next[std::size_t(q)]; j != p; j = m_next[std::size_t(j)])
        {
            if (m_turn[std::size_t(j)] > 0.0)
                continue; // only a reflex corner can lie inside an ear of a simple polygon
            const P2& x = m_pts[std::size_t(j)];
            if (samePoint(x, a) || samePoint(x, b) || samePoint(x, c))
                continue;
            if (insideTriangle(x, a, b, c))
                return;
        }
        m_quality[std::size_t(i)] = smallestAngle(a, b, c);
    }

    std::vector<P2> m_pts;
    int m_n;
    std::vector<int> m_prev, m_next;
    std::vector<double> m_turn, m_quality;
};

} // namespace

qyLinear::Normal polygonNormal(int n, const qyLinear::Point* points)
{
    qyLinear::Vector sum(0, 0, 0);
    for (int i = 0; i < n; ++i)
    {
        const qyLinear::Point& a = points[i];
        const qyLinear::Point& b = points[(i + 1) % n];
        sum.x += (a.y - b.y) * (a.z + b.z);
        sum.y += (a.z - b.z) * (a.x + b.x);
        sum.z += (a.x - b.x) * (a.y + b.y);
    }
    return qyLinear::Normal(sum);
}

int polygonTriangulate(int n, const qyLinear::Point* points, std::vector<int>& triangles)
{
    triangles.clear();
    if (n < 3)
        return 0;
    triangles.reserve(3 * std::size_t(n - 2));

    // Centre the corners first so that the projected coordinates keep their precision.
    qyLinear::Vector centre(0, 0, 0);
    for (int i = 0; i < n; ++i)
        centre += qyLinear::Vector(points[i]);
    centre /= double(n);

    qyLinear::Vector u, v;
    const qyLinear::Normal normal = polygonNormal(n, points);
    if (normal.isValid())
    {
        const qyLinear::Vector& z = normal.asVector();
        u = -qyLinear::orthogonalTo(z);
        v = qyLinear::cross(z, u);
    }
    else
    {
        // No area: drop the axis of the smallest extent; clipping then falls back to turns.
        qyLinear::Range3d box;
        for (int i = 0; i < n; ++i)
            box.extend(points[i]);
        int drop = 0;
        for (int k = 1; k < 3; ++k)
            if (box[k].size() < box[drop].size())
                drop = k;
        u = v = qyLinear::Vector(0, 0, 0);
        u[(drop + 1) % 3] = 1.0;
        v[(drop + 2) % 3] = 1.0;
    }

    std::vector<P2> pts(static_cast<std::size_t>(n));
    for (int i = 0; i < n; ++i)
    {
        const qyLinear::Vector d = qyLinear::Vector(points[i]) - centre;
        pts[std::size_t(i)] = {qyLinear::dot(d, u), qyLinear::dot(d, v)};
    }
    EarClipper(std::move(pts)).run(triangles);
    return n - 2;
}

} // namespace qyGeom
